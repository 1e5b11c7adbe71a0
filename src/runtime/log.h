// The library's one way out for log lines, at debug priority.
//
// On Android every line goes to the system log (__android_log_vprint with
// ANDROID_LOG_DEBUG and the caller's tag). Elsewhere there is no system log to
// speak to, so lines go to a sink that the host program sets; without one they
// are dropped. The sink is ignored on Android.
#pragma once

#include <cstdarg>

namespace vq_tl {

// Receives one formatted line "tag: text" without a trailing newline; `line`
// is valid only during the call.
using LogSinkFn = void (*)(void* user, const char* line);

// Longest line a sink receives, in bytes without the terminator; longer lines
// are cut. The Android log keeps up to about 4000 bytes, far above what the
// timing dumps print.
constexpr int kLogMaxLine = 1023;

// Sets the sink and its user word; a null sink turns output off. Calls to the
// sink are serialised: once this returns, the previous sink is not called
// again. A sink must not log.
void Log_setSink(LogSinkFn sink, void* user);

// Writes one line at debug priority. A null or empty tag prints the text
// alone; a null format prints nothing. One trailing newline is dropped.
void Log_printLine(const char* tag, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
void Log_vprintLine(const char* tag, const char* fmt, va_list args) __attribute__((format(printf, 2, 0)));

}  // namespace vq_tl
