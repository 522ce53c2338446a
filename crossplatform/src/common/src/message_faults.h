// The one-line reasons of `ZQNetLoader::failure`.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "crossplatform/src/common/src/payload_readers.h"

/// "0x5555".
std::string marker_text(unsigned int marker);

/// Where a message went wrong and how: the distance from the start of the file, and the number of
/// the message from 0.
std::string message_fault_text(uint64_t offset, size_t record, const std::string& text);
std::string message_fault_text(uint64_t offset, size_t record, unsigned short message_type,
                               const PayloadFault& fault);
