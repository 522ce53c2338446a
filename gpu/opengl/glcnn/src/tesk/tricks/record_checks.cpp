#include "record_checks.h"

#include <cstdio>
#include <string>

#include "platform/tn_core.h"

namespace tesk {

void reportLayer(const ZQLayerInfo& record, const char* expected, const char* found) {
    Tarno::_LogError("Tarno", "layer %d (%s): expected %s, found %s", record.id,
                     zq_layer_type_name(record.type), expected, found);
}

void reportLayer(const ZQLayerInfo& record, const char* expected, long long found) {
    char number[24];
    std::snprintf(number, sizeof(number), "%lld", found);
    reportLayer(record, expected, number);
}

bool isUsable(const ZQLayerInfo* record, ZQLayerType type, bool scales) {
    if (record == nullptr) {
        Tarno::_LogError("Tarno", "layer (%s): expected a record, found none",
                         zq_layer_type_name(type));
        return false;
    }
    if (record->type != type) {
        const std::string expected = std::string("a record of ") + zq_layer_type_name(type);
        reportLayer(*record, expected.c_str(), zq_layer_type_name(record->type));
        return false;
    }
    if (scales && (record->in_shape == nullptr || record->out_shape == nullptr)) {
        reportLayer(*record, "a shape of its input and one of its output", "none");
        return false;
    }
    return true;
}

bool holdsAtLeast(const ZQLayerInfo& record, const char* what, long long expected,
                  const void* array, size_t count) {
    const long long found = array != nullptr ? static_cast<long long>(count) : 0;
    if (found >= expected) return true;
    char text[64];
    std::snprintf(text, sizeof(text), "%lld %s", expected, what);
    reportLayer(record, text, found);
    return false;
}

FrozenShape frozenShape(const tensor28& tensor) {
    const unsigned short* const dims = tensor.dims;
    switch (tensor.rank) {
        case 1:
            return {dims[0], 1, 1};
        case 2:
            return {dims[1], 1, 1};
        case 3:
            return {dims[0], dims[1], dims[2]};
        default: {
            // A rank that the file does not tell, or that no record has room for, counts as 4.
            const int first = tensor.rank >= 4 && tensor.rank <= 11 ? tensor.rank - 3 : 1;
            return {dims[first], dims[first + 1], dims[first + 2]};
        }
    }
}

}  // namespace tesk
