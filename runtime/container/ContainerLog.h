#pragma once

#include <KEL/KELLogger.h>

#include <cstdarg>

namespace KEL::container {

// Tag of every log line of the container reader, serializer and verifier.
inline constexpr const char* kLogTag = "KELContainer";

// Logs through the process's logger when there is one. A real variadic
// function (not a template) so that the compiler checks every call's
// arguments against its format.
__attribute__((format(printf, 2, 3))) inline void LogContainer(int level, const char* format, ...) {
    auto log = GetKELLoggerInstance().lock();
    if (!log) {
        return;
    }
    va_list args;
    va_start(args, format);
    log->LogMessageV(level, kLogTag, format, args);
    va_end(args);
}

}  // namespace KEL::container
