#include "library_reports.h"

#include <tarno/log.h>

#include <cstdio>
#include <utility>

namespace tool {
namespace {

// The library's handler is a plain function.
LibraryReports* active = nullptr;

void print_line(Tarno::LogLevel, const char* tag, const char* text, void*) {
    std::fprintf(stderr, "%s: %s\n", tag, text);
}

void drop_line(Tarno::LogLevel, const char*, const char*, void*) {}

}  // namespace

LibraryReports::LibraryReports(bool verbose) : verbose(verbose) {
    active = this;
    Tarno::SetAssertHandler(&LibraryReports::assertion);
    Tarno::SetLogSink(verbose ? print_line : drop_line, nullptr);
    Tarno::SetLogLevel(verbose ? Tarno::LogLevel::Verbose : Tarno::LogLevel::Silent);
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
