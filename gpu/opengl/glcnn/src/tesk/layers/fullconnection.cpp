#include "fullconnection.h"

#include "../tricks/tricks_fullconnection.h"

namespace tesk {

void FullConnection::setup(ZQLayerInfo* record) {
    if (take(record)) use<Tricks_FullConnection>(record);
}

}  // namespace tesk
