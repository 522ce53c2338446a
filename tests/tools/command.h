// Runs the tarno command as a process of its own.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "support/temporary_folder.h"

namespace command_test {

using testing_support::Folder;
using testing_support::read_file;
using testing_support::write_file;

struct Outcome {
    int status = -1;  ///< exit status; -1 when a signal ended the process
    bool timed_out = false;
    int64_t peak_resident = 0;  ///< bytes; at least those of the process that started it
    std::string out;
    std::string err;

    /// Lines on standard error.
    size_t error_lines() const {
        return static_cast<size_t>(std::count(err.begin(), err.end(), '\n'));
    }
};

/// Whether the heap and the address space belong to a sanitizer.
constexpr bool sanitized =
#if defined(__SANITIZE_ADDRESS__)
    true;
#else
    false;
#endif

/// Runs the command with `arguments`, standard input empty. It is ended after `seconds`, which is a
/// hang. `address_space`, in bytes, is a limit where no sanitizer needs the address space.
inline Outcome run_tarno(const std::vector<std::string>& arguments, int seconds = 120,
                         rlim_t address_space = RLIM_INFINITY) {
    const Folder folder;
    const std::string out_path = folder / "out";
    const std::string err_path = folder / "err";
    std::vector<std::string> words = {TARNO_COMMAND};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (std::string& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);

    const pid_t child = fork();
    if (child == 0) {
        const int in = open("/dev/null", O_RDONLY);
        const int out = open(out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        const int err = open(err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        dup2(in, 0);
        dup2(out, 1);
        dup2(err, 2);
        if (!sanitized && address_space != RLIM_INFINITY) {
            const rlimit limit = {address_space, address_space};
            setrlimit(RLIMIT_AS, &limit);
        }
        execv(argv[0], argv.data());
        _exit(127);
    }

    Outcome outcome;
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    int state = 0;
    rusage usage = {};
    while (wait4(child, &state, WNOHANG, &usage) == 0) {
        if (std::chrono::steady_clock::now() > end) {
            outcome.timed_out = true;
            kill(child, SIGKILL);
            wait4(child, &state, 0, &usage);
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    if (WIFEXITED(state)) outcome.status = WEXITSTATUS(state);
    outcome.peak_resident = int64_t{usage.ru_maxrss} * 1024;
    outcome.out = read_file(out_path);
    outcome.err = read_file(err_path);
    return outcome;
}

/// The command did its work and had nothing to complain about.
inline void expect_success(const Outcome& outcome) {
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_EQ(outcome.err, "");
}

/// The command gave up with `status` and one line that holds all of `parts`.
inline void expect_refusal(const Outcome& outcome, int status,
                           const std::vector<std::string>& parts) {
    EXPECT_FALSE(outcome.timed_out);
    EXPECT_EQ(outcome.status, status) << outcome.err;
    EXPECT_EQ(outcome.error_lines(), 1u) << outcome.err;
    EXPECT_EQ(outcome.err.compare(0, 7, "tarno: "), 0) << outcome.err;
    for (const std::string& part : parts) {
        EXPECT_NE(outcome.err.find(part), std::string::npos)
            << "\"" << part << "\" is not in: " << outcome.err;
    }
}

}  // namespace command_test
