#include "concat.h"

#include "../tricks/tricks_concat.h"

namespace tesk {

void Concat::setup(ZQLayerInfo* record) {
    if (take(record)) use<Tricks_Concat>(record);
}

void Concat::forward(Images& inputs, Images& outputs) {
    if (tricks != nullptr && !outputs.empty()) tricks->compute(inputs, outputs[0].get());
}

}  // namespace tesk
