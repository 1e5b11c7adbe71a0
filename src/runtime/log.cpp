#include "runtime/log.h"

#include <pthread.h>

#include <cstdio>
#include <cstring>

#ifdef __ANDROID__
#include <android/log.h>
#endif

namespace vq_tl {

namespace {

// Constant-initialised, so logging works from any static constructor.
pthread_mutex_t gSinkLock = PTHREAD_MUTEX_INITIALIZER;
LogSinkFn gSink = nullptr;
void* gSinkUser = nullptr;

}  // namespace

void Log_setSink(LogSinkFn sink, void* user) {
    pthread_mutex_lock(&gSinkLock);
    gSink = sink;
    gSinkUser = user;
    pthread_mutex_unlock(&gSinkLock);
}

void Log_vprintLine(const char* tag, const char* fmt, va_list args) {
    if (fmt == nullptr) return;
#ifdef __ANDROID__
    __android_log_vprint(ANDROID_LOG_DEBUG, tag != nullptr ? tag : "", fmt, args);
#else
    pthread_mutex_lock(&gSinkLock);
    if (gSink != nullptr) {
        char line[kLogMaxLine + 1];
        line[0] = '\0';
        int used = 0;
        if (tag != nullptr && tag[0] != '\0') {
            used = std::snprintf(line, sizeof line, "%s: ", tag);
            if (used < 0) {
                used = 0;
                line[0] = '\0';
            }
            if (used > kLogMaxLine) used = kLogMaxLine;
        }
        if (used < kLogMaxLine) {
            std::vsnprintf(line + used, sizeof line - used, fmt, args);
        }
        const size_t length = std::strlen(line);
        if (length > 0 && line[length - 1] == '\n') line[length - 1] = '\0';
        gSink(gSinkUser, line);
    }
    pthread_mutex_unlock(&gSinkLock);
#endif
}

void Log_printLine(const char* tag, const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    Log_vprintLine(tag, fmt, args);
    va_end(args);
}

}  // namespace vq_tl
