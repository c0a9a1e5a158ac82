#include <KelCommon/VersionInfo.h>

#include <string>

namespace KelCommon {

String VersionInfo::ToString() const {
    return String(std::to_string(major_) + "." + std::to_string(minor_) + "." + std::to_string(patch_));
}

}  // namespace KelCommon
