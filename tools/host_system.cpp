#include "host_system.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>

namespace tool {

bool standard_error_is_terminal() {
    return isatty(STDERR_FILENO) != 0;
}

int process_number() {
    return getpid();
}

int64_t peak_resident_bytes() {
    rusage usage = {};
    getrusage(RUSAGE_SELF, &usage);
    return int64_t{usage.ru_maxrss} * 1024;
}

SilentStandardOutput::SilentStandardOutput() {
    std::fflush(stdout);
    const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (nowhere < 0) return;
    saved = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3);
    if (saved >= 0) dup2(nowhere, STDOUT_FILENO);
    close(nowhere);
}

SilentStandardOutput::~SilentStandardOutput() {
    std::fflush(stdout);
    if (saved < 0) return;
    dup2(saved, STDOUT_FILENO);
    close(saved);
}

}  // namespace tool
