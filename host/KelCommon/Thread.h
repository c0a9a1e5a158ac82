#pragma once

#include <KelCommon/Export.h>

#include <string>

namespace KelCommon::concurrency {

class KEL_API Thread {
public:
    // Names the calling thread. The full name is kept for getCurrentThreadName
    // and log lines; the kernel's copy (seen by ps, top, gdb) is cut to its
    // 15-character limit.
    static void setCurrentThreadName(const std::string& name);
    // The name given by setCurrentThreadName on this thread, or the kernel's
    // name when none was given.
    static std::string getCurrentThreadName();
};

}  // namespace KelCommon::concurrency
