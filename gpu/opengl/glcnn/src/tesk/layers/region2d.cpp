#include "region2d.h"

#include "../tricks/tricks_region2d.h"

namespace tesk {

void Region2D::setup(ZQLayerInfo* record) {
    if (take(record)) use<Tricks_Region2D>(record);
}

}  // namespace tesk
