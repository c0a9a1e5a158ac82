#include <KelCommon/StringHelper.h>

namespace KelCommon {

bool StringHelper::endsWith_CaseSensitive(const std::string& text, const std::string& suffix) noexcept {
    return text.size() >= suffix.size() && text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

}  // namespace KelCommon
