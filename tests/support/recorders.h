// Recorders for assertions and log lines, installed for the length of a scope.
#pragma once

#include <tarno/log.h>

#include <string>
#include <vector>

namespace testing_support {

/// Collects failed assertions instead of logging them. One at a time.
class AssertRecorder {
public:
    struct Entry {
        std::string condition;
        std::string source;
        int line;
    };

    AssertRecorder() {
        entries().clear();
        previous = Tarno::SetAssertHandler(&AssertRecorder::record);
    }
    ~AssertRecorder() { Tarno::SetAssertHandler(previous); }
    AssertRecorder(const AssertRecorder&) = delete;
    AssertRecorder& operator=(const AssertRecorder&) = delete;

    static std::vector<Entry>& entries() {
        static std::vector<Entry> list;
        return list;
    }
    size_t count() const { return entries().size(); }
    /// How many failures carried exactly this condition text.
    size_t count(const std::string& condition) const {
        size_t hits = 0;
        for (const Entry& entry : entries())
            hits += entry.condition == condition ? 1 : 0;
        return hits;
    }
    const Entry& last() const { return entries().back(); }

private:
    static void record(const char* condition, const char* source, int line) {
        entries().push_back({condition, source, line});
    }
    Tarno::AssertHandler previous;
};

/// Collects log lines of all levels.
class LogRecorder {
public:
    struct Line {
        Tarno::LogLevel level;
        std::string tag;
        std::string text;
    };
    std::vector<Line> lines;

    LogRecorder() {
        Tarno::SetLogLevel(Tarno::LogLevel::Verbose);
        Tarno::SetLogSink(&LogRecorder::record, this);
    }
    ~LogRecorder() {
        Tarno::SetLogSink(nullptr, nullptr);
        Tarno::SetLogLevel(Tarno::LogLevel::Info);
    }
    LogRecorder(const LogRecorder&) = delete;
    LogRecorder& operator=(const LogRecorder&) = delete;

private:
    static void record(Tarno::LogLevel level, const char* tag, const char* text, void* context) {
        static_cast<LogRecorder*>(context)->lines.push_back({level, tag, text});
    }
};

}  // namespace testing_support
