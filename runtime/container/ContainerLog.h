#pragma once

#include <KEL/KELLogger.h>

#include <cstdarg>
#include <cstdio>
#include <string>

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
    va_list copy;
    va_copy(copy, args);
    const int needed = std::vsnprintf(nullptr, 0, format, copy);
    va_end(copy);
    std::string text(needed > 0 ? static_cast<std::size_t>(needed) : 0, '\0');
    if (needed > 0) {
        std::vsnprintf(text.data(), text.size() + 1, format, args);
    }
    va_end(args);
    log->LogMessage(level, kLogTag, "%s", text.c_str());
}

}  // namespace KEL::container
