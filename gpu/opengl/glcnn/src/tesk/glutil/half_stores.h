// How the driver rounds where a shader stores numbers as halves.
#pragma once

#include <string>

#include "../types.h"

namespace tesk {

/// Whether the current context cuts numbers off in imageStore to GL_RGBA16F instead of rounding to
/// the nearest, which GL leaves open. Tried out once for each driver on a thread. False without a
/// context.
TESK_TESTED bool halfStoresCutOff();

/// GLSL text, without a version line, with stores to rgba16f images through a function that rounds
/// to the nearest half. As it stands when there are none, or images of other formats beside them.
TESK_TESTED std::string withNearestHalfStores(const std::string& text);

}  // namespace tesk
