// How much memory a piece of a test takes.
#pragma once

#include <malloc.h>

#include <fstream>
#include <string>

namespace testing_support {

/// What the process has in memory at most, beyond what it had when the object was made.
class PeakMemory {
public:
    PeakMemory() {
        // As in a process that has just started: once large blocks were freed, malloc would take
        // the next ones from a heap that keeps what is freed.
        mallopt(M_MMAP_THRESHOLD, 128 << 10);
        malloc_trim(0);
        std::ofstream("/proc/self/clear_refs") << "5";  // forgets the peak
        before = status("VmRSS:");
    }
    /// In bytes, less what AddressSanitizer keeps of freed blocks.
    double growth() const { return status("VmHWM:") - before - quarantine; }

private:
#ifdef __SANITIZE_ADDRESS__
    static constexpr double quarantine = 256 << 20;  // its default
#else
    static constexpr double quarantine = 0;
#endif
    static double status(const std::string& name) {
        std::ifstream file("/proc/self/status");
        std::string line;
        while (std::getline(file, line)) {
            if (line.rfind(name, 0) == 0) return std::stod(line.substr(name.size())) * 1024;
        }
        return 0;
    }
    double before = 0;
};

}  // namespace testing_support
