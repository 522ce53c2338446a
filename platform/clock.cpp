#include "platform/clock.h"

#include <chrono>

namespace Tarno {

double wall_clock_milliseconds() {
    const auto since_epoch = std::chrono::system_clock::now().time_since_epoch();
    const auto total = std::chrono::duration_cast<std::chrono::milliseconds>(since_epoch).count();
    const auto seconds = total / 1000;
    const auto milliseconds = total % 1000;
    return static_cast<double>(seconds) * 1000.0 +
           static_cast<double>(milliseconds * 1000) / 1000.0;
}

}  // namespace Tarno
