#include "tensorreshape.h"

#include "../tricks/tricks_tensorreshape.h"

namespace tesk {

void TensorReshape::setup(ZQLayerInfo* record) {
    if (take(record)) use<Tricks_TensorReshape>(record);
}

}  // namespace tesk
