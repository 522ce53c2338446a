// What machine this is.
#pragma once

#include <string>

namespace tool {

/// The processor's own name, "unknown processor" where the system does not tell.
std::string machine_name();

}  // namespace tool
