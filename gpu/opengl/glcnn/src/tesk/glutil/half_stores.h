// How the driver rounds where a shader stores numbers as halves.
#pragma once

#include <string>

#include "../types.h"

namespace tesk {

/// Whether the current context cuts numbers off in imageStore to GL_RGBA16F instead of rounding to
/// the nearest, which GL leaves open. Tried out once for each driver on a thread. False without a
/// context.
TESK_TESTED bool halfStoresCutOff();

/// The trial itself: one store, read back. The program in use, the texture of the active unit, image
/// unit 0 and the pixel pack buffer are bound afterwards as before. Needs a context.
TESK_TESTED bool tryHalfStores();

/// GLSL text, without a version line, with stores to rgba16f images through a function that rounds
/// to the nearest half. As it stands when it stores nothing, asks for an extension, or declares any
/// image but single-sample float images of the format rgba16f: the function fits no others, and
/// must not stand before an extension line.
TESK_TESTED std::string withNearestHalfStores(const std::string& text);

}  // namespace tesk
