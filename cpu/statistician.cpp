#include "cpu/statistician.h"

namespace TarnoCPU {

Statistician::~Statistician() = default;

}  // namespace TarnoCPU
