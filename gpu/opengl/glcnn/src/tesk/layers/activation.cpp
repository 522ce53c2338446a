#include "activation.h"

#include "../tricks/tricks_activation.h"

namespace tesk {

void Activation::setup(ZQLayerInfo* record) {
    if (take(record)) use<Tricks_Activation>(record);
}

}  // namespace tesk
