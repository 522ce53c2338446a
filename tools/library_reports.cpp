#include "library_reports.h"

#include <tarno/log.h>

#include <cstdio>
#include <utility>

namespace tool {
namespace {

// The library's handler is a plain function.
LibraryReports* active = nullptr;

}  // namespace

LibraryReports::LibraryReports(bool verbose) : verbose(verbose) {
    active = this;
    Tarno::SetAssertHandler(&LibraryReports::assertion);
    Tarno::SetLogSink(
        [](Tarno::LogLevel level, const char* tag, const char* text, void* reports) {
            static_cast<LibraryReports*>(reports)->take(level == Tarno::LogLevel::Error, tag, text);
        },
        this);
    Tarno::SetLogLevel(verbose ? Tarno::LogLevel::Verbose : Tarno::LogLevel::Error);
}

LibraryReports::~LibraryReports() {
    Tarno::SetAssertHandler(nullptr);
    Tarno::SetLogSink(nullptr, nullptr);
    Tarno::SetLogLevel(Tarno::LogLevel::Info);
    active = nullptr;
}

LibraryReports::Observation::Observation(LibraryReports& reports, Observer observer)
    : reports(reports) {
    reports.observer = std::move(observer);
}

LibraryReports::Observation::~Observation() {
    reports.observer = nullptr;
}

void LibraryReports::take(bool is_error, const char* tag, const char* text) {
    if (verbose) std::fprintf(stderr, "%s: %s\n", tag, text);
    if (is_error && first_error.empty()) first_error = text;
}

void LibraryReports::assertion(const char* condition, const char* source, int line) {
    if (active->verbose) {
        std::fprintf(stderr, "Tarno: assertion failed: %s (%s:%d)\n", condition, source, line);
    }
    if (!active->observer) return;
    const Observation::Observer first = std::move(active->observer);
    active->observer = nullptr;
    first(condition);
}

}  // namespace tool
