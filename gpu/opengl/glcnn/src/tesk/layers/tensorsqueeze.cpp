#include "tensorsqueeze.h"

#include "../tricks/tricks_tensorsqueeze.h"

namespace tesk {

void TensorSqueeze::setup(ZQLayerInfo* record) {
    if (take(record)) use<Tricks_TensorSqueeze>(record);
}

}  // namespace tesk
