// The one-line reasons of `ZQNetLoader::failure`.
#pragma once

#include <string>

#include "crossplatform/src/common/src/bounded_reader.h"
#include "crossplatform/src/common/src/payload_readers.h"

/// "0x5555".
std::string marker_text(unsigned int marker);

/// Where a message went wrong and how. `record` counts the messages from 0.
std::string message_fault_text(const BoundedReader& in, size_t record, const std::string& text);
std::string message_fault_text(const BoundedReader& in, size_t record, unsigned short message_type,
                               const PayloadFault& fault);
