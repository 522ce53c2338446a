// What a generator asks of a layer record before it reads it. A record that does not hold what its
// numbers say is refused with one log line, and the generator stays without a program.
#pragma once

#include <cstddef>
#include <type_traits>

#include "crossplatform/src/common/src/zqlayerinfo.h"

namespace tesk {

/// "layer <id> (<kind>): expected <expected>, found <found>", at error level.
void reportLayer(const ZQLayerInfo& record, const char* expected, const char* found);
void reportLayer(const ZQLayerInfo& record, const char* expected, long long found);

/// Whether the record is of this kind and, where it `scales`, has its two shapes; a log line when
/// not. A null record is of no kind.
bool isUsable(const ZQLayerInfo* record, ZQLayerType type, bool scales);

/// The record as the class of its kind; null, with a log line, when it is of another kind.
template <typename Record>
Record* recordAs(ZQLayerInfo* record, ZQLayerType type) {
    constexpr bool scales = !std::is_base_of_v<ZQFreezedLayerInfo, Record>;
    return isUsable(record, type, scales) ? static_cast<Record*>(record) : nullptr;
}

/// Whether an array of the record, of `count` numbers when it is there, holds at least `expected`;
/// a log line when not. `what` names the array.
bool holdsAtLeast(const ZQLayerInfo& record, const char* what, long long expected,
                  const void* array, size_t count);

/// Channels, height and width of an absolute shape, whose last three dims they are. A shape of two
/// dims is batch and channels of one pixel.
struct FrozenShape {
    int channels = 0;
    int height = 0;
    int width = 0;
};
FrozenShape frozenShape(const tensor28& tensor);

}  // namespace tesk
