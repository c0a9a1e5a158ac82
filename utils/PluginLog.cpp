#include "utils/PluginLog.h"

#include <KEL/KELLogger.h>

#include <cstdarg>

namespace Kel2File {

void Log(int level, const char* format, ...) {
    auto logger = KEL::GetKELLoggerInstance().lock();
    if (!logger) {
        return;
    }
    va_list args;
    va_start(args, format);
    logger->LogMessageV(level, kLogTag, format, args);
    va_end(args);
}

}  // namespace Kel2File
