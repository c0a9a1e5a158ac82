#include "utils/PluginLog.h"

#include <KEL/KELLogger.h>

#include <cstdarg>
#include <cstdio>
#include <string>

namespace Kel2File {

void Log(int level, const char* format, ...) {
    auto logger = KEL::GetKELLoggerInstance().lock();
    if (!logger) {
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
    logger->LogMessage(level, kLogTag, "%s", text.c_str());
}

}  // namespace Kel2File
