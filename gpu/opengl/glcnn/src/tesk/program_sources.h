// The sources under programs/, embedded at build time.
#pragma once

#include <string>

#include "types.h"

namespace tesk {

/// The text of `programs/<name>.comp`; null when there is no such file.
TN_API const char* programSource(const std::string& name);

}  // namespace tesk
