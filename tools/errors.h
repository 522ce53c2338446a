// The two ways in which the command fails.
#pragma once

#include <stdexcept>
#include <string>

namespace tool {

/// Something outside the command line is wrong: one line that names the file or layer, what was
/// expected and what was found. Exit status 1.
class CommandError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// The command line is wrong. Exit status 2.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// The command line did its work already: help or version was printed. Exit status 0.
class NothingToDo : public std::exception {};

constexpr int exit_error = 1;
constexpr int exit_usage = 2;

}  // namespace tool
