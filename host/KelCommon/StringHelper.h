#pragma once

#include <KelCommon/Export.h>

#include <string>

namespace KelCommon {

class KEL_API StringHelper {
public:
    // True when `text` ends with `suffix`, comparing bytes exactly.
    static bool endsWith_CaseSensitive(const std::string& text, const std::string& suffix) noexcept;
};

}  // namespace KelCommon
