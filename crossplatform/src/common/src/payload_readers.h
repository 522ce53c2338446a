// The payloads of the messages, one reader for each type.
#pragma once

#include <memory>
#include <string>

#include "crossplatform/src/common/src/bounded_reader.h"
#include "crossplatform/src/common/src/zqlayerinfo.h"

/// By which rules the payloads of a file are laid out.
struct PayloadRules {
    unsigned int version;  ///< of the file
    bool legacy;           ///< the layout of version 10000
};

/// What is known of a payload that could not be read.
struct PayloadFault {
    bool id_known = false;
    unsigned short id = 0;
    std::string text;  ///< what was expected and what was found
};

/// Reads the payload of a message whose type is in use. Null, with `fault` filled and nothing kept,
/// when the file is at its end too early, when a number in it can't be, or when memory is short.
std::unique_ptr<ZQLayerInfo> read_payload(BoundedReader& in, unsigned short message_type,
                                          const PayloadRules& rules, PayloadFault& fault);
