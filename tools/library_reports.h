// What the library says while the command works: log lines and failed assertions.
#pragma once

#include <functional>
#include <string>

namespace tool {

/// Takes the library's log lines and assertions for the length of its life, one object at a time.
/// They go nowhere, so that a failing command is one line, unless `verbose` sends them to standard
/// error. The first error line is kept for that one.
class LibraryReports {
public:
    explicit LibraryReports(bool verbose);
    ~LibraryReports();
    LibraryReports(const LibraryReports&) = delete;
    LibraryReports& operator=(const LibraryReports&) = delete;

    /// The first line at error level since the start or the last `forget_error`, empty without one.
    const std::string& error() const { return first_error; }
    void forget_error() { first_error.clear(); }

    /// While it lives, calls `observer` from inside the library with the condition of the first
    /// assertion. One at a time.
    class Observation {
    public:
        using Observer = std::function<void(const std::string& condition)>;
        Observation(LibraryReports& reports, Observer observer);
        ~Observation();
        Observation(const Observation&) = delete;
        Observation& operator=(const Observation&) = delete;

    private:
        LibraryReports& reports;
    };

private:
    static void assertion(const char* condition, const char* source, int line);
    void take(bool is_error, const char* tag, const char* text);

    bool verbose;
    std::string first_error;
    Observation::Observer observer;
};

}  // namespace tool
