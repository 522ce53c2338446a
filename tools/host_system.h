// What has to be asked of the operating system.
#pragma once

#include <cstdint>

namespace tool {

/// Whether somebody looks at standard error as it comes.
bool standard_error_is_terminal();

/// Tells running processes apart.
int process_number();

/// The most memory that the process has held so far, in bytes.
int64_t peak_resident_bytes();

/// Sends standard output nowhere for the length of a scope.
class SilentStandardOutput {
public:
    SilentStandardOutput();
    ~SilentStandardOutput();
    SilentStandardOutput(const SilentStandardOutput&) = delete;
    SilentStandardOutput& operator=(const SilentStandardOutput&) = delete;

private:
    int saved = -1;
};

}  // namespace tool
