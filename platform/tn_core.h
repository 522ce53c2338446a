// Log channels and assertions: the ground floor of the library.
//
// The library never exits and never aborts, and throws only what containers throw. It returns failure
// values, writes log lines, and calls the assertion handler for programmer errors and damaged models.
#pragma once

#include "export.h"

namespace Tarno {

/// Severity of a line, in ascending order. `Silent` is a threshold only: no line carries it.
enum class LogLevel { Verbose = 0, Debug = 1, Info = 2, Error = 3, Silent = 4 };

#if defined(__GNUC__)
#define TN_PRINTF_LIKE __attribute__((format(printf, 2, 3)))
#else
#define TN_PRINTF_LIKE
#endif

/// The four channels. `tag` names the speaker (the library always says "Tarno"), `format` and the
/// arguments follow printf. Any thread may call them.
TN_API void _LogVerbose(const char* tag, const char* format, ...) TN_PRINTF_LIKE;
TN_API void _LogInfo(const char* tag, const char* format, ...) TN_PRINTF_LIKE;
TN_API void _LogDebug(const char* tag, const char* format, ...) TN_PRINTF_LIKE;
TN_API void _LogError(const char* tag, const char* format, ...) TN_PRINTF_LIKE;

/// Receives one formatted message, without an added end of line. `tag` and `text` live for the
/// length of the call. `context` is what was handed to `SetLogSink`.
using LogSink = void (*)(LogLevel level, const char* tag, const char* text, void* context);

/// Sends all lines at or above the threshold to `sink`; null brings standard error back. The sink
/// is called on the thread that logs, possibly on several threads at once.
TN_API void SetLogSink(LogSink sink, void* context);

/// Lines below `threshold` are dropped before they are formatted. `LogLevel::Info` at start.
TN_API void SetLogLevel(LogLevel threshold);

/// Receives a failed assertion: the literal text of the condition, the name of the source unit
/// without folder and extension, and a line number that is stable from release to release for the
/// assertions that the documentation lists. When it returns, the library goes on with the failure
/// value of the function in question.
using AssertHandler = void (*)(const char* condition, const char* source, int line);

/// Installs `handler` and returns the one before it; null brings back the default, which writes one
/// line to the error channel and returns. A host may install one that aborts.
TN_API AssertHandler SetAssertHandler(AssertHandler handler);

/// Hands a failed assertion to the installed handler. The library's own units call it through the
/// macros of `platform/assertion.h`.
TN_API void ReportAssertion(const char* condition, const char* source, int line);

}  // namespace Tarno
