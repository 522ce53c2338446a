#include "platform/tn_core.h"

#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <string>

namespace Tarno {
namespace {

struct Settings {
    std::mutex mutex;
    LogSink sink = nullptr;
    void* sink_context = nullptr;
    LogLevel threshold = LogLevel::Info;
    AssertHandler assert_handler = nullptr;
};

// Never destroyed: static objects of a host may still log while the process ends.
Settings& settings() {
    static Settings* instance = new Settings;
    return *instance;
}

const char* level_name(LogLevel level) {
    switch (level) {
        case LogLevel::Verbose:
            return "verbose";
        case LogLevel::Debug:
            return "debug";
        case LogLevel::Info:
            return "info";
        default:
            return "error";
    }
}

std::string format_message(const char* format, va_list arguments) {
    va_list measured;
    va_copy(measured, arguments);
    const int length = std::vsnprintf(nullptr, 0, format, measured);
    va_end(measured);
    if (length <= 0) return std::string();
    std::string text(static_cast<size_t>(length) + 1, '\0');
    std::vsnprintf(&text[0], text.size(), format, arguments);
    text.pop_back();
    return text;
}

void write_line(LogLevel level, const char* tag, const char* format, va_list arguments) {
    LogSink sink = nullptr;
    void* context = nullptr;
    {
        Settings& current = settings();
        std::lock_guard<std::mutex> lock(current.mutex);
        if (level < current.threshold) return;
        sink = current.sink;
        context = current.sink_context;
    }
    // The lock is not held here, so a sink may log or change the settings itself.
    const std::string text = format_message(format, arguments);
    if (sink != nullptr) {
        sink(level, tag, text.c_str(), context);
    } else {
        std::fprintf(stderr, "[%s] %s: %s\n", tag, level_name(level), text.c_str());
    }
}

}  // namespace

#define TN_DEFINE_CHANNEL(function, level)                    \
    void function(const char* tag, const char* format, ...) { \
        va_list arguments;                                    \
        va_start(arguments, format);                          \
        write_line(level, tag, format, arguments);            \
        va_end(arguments);                                    \
    }

TN_DEFINE_CHANNEL(_LogVerbose, LogLevel::Verbose)
TN_DEFINE_CHANNEL(_LogInfo, LogLevel::Info)
TN_DEFINE_CHANNEL(_LogDebug, LogLevel::Debug)
TN_DEFINE_CHANNEL(_LogError, LogLevel::Error)

void SetLogSink(LogSink sink, void* context) {
    Settings& current = settings();
    std::lock_guard<std::mutex> lock(current.mutex);
    current.sink = sink;
    current.sink_context = context;
}

void SetLogLevel(LogLevel threshold) {
    Settings& current = settings();
    std::lock_guard<std::mutex> lock(current.mutex);
    current.threshold = threshold;
}

AssertHandler SetAssertHandler(AssertHandler handler) {
    Settings& current = settings();
    std::lock_guard<std::mutex> lock(current.mutex);
    AssertHandler previous = current.assert_handler;
    current.assert_handler = handler;
    return previous;
}

void ReportAssertion(const char* condition, const char* source, int line) {
    AssertHandler handler = nullptr;
    {
        Settings& current = settings();
        std::lock_guard<std::mutex> lock(current.mutex);
        handler = current.assert_handler;
    }
    if (handler != nullptr) {
        handler(condition, source, line);
    } else {
        _LogError("Tarno", "assertion failed: %s, source %s, line %d", condition, source, line);
    }
}

}  // namespace Tarno
