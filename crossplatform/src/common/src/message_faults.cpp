#include "crossplatform/src/common/src/message_faults.h"

#include <cstdio>

std::string marker_text(unsigned int marker) {
    char text[16];
    std::snprintf(text, sizeof(text), "0x%04x", marker);
    return text;
}

std::string message_fault_text(uint64_t offset, size_t record, const std::string& text) {
    return "offset " + std::to_string(offset) + ", record " + std::to_string(record) + ": " + text;
}

std::string message_fault_text(uint64_t offset, size_t record, unsigned short message_type,
                               const PayloadFault& fault) {
    return "offset " + std::to_string(offset) + ", record " + std::to_string(record) +
           ", layer id " + (fault.id_known ? std::to_string(fault.id) : "unknown") + ", type " +
           std::to_string(message_type) + " (" + zq_layer_type_name(message_type) +
           "): " + fault.text;
}
