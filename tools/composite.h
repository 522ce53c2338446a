// A figure laid over a new background.
#pragma once

#include <string>

#include "picture.h"

namespace tool {

/// One colour for all pixels, or a picture stretched to the size of the other.
Picture background_of(const std::string& text, int w, int h);

/// picture * mask + background * (1 - mask), the mask brought to the size of the picture.
Picture composite_of(const Picture& picture, const Picture& background, const FloatMap& mask);

}  // namespace tool
