#pragma once

#include <KEL/KELLogger.h>

namespace KEL::container {

// Tag of every log line of the container reader, serializer and verifier.
inline constexpr const char* kLogTag = "KELContainer";

// Logs through the process's logger when there is one.
template <typename... Args>
void LogContainer(int level, const char* format, Args... args) {
    if (auto log = GetKELLoggerInstance().lock()) {
        log->LogMessage(level, kLogTag, format, args...);
    }
}

}  // namespace KEL::container
