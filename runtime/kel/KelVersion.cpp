#include <KEL/KelVersion.h>

namespace KEL {

namespace {
constexpr KelCommon::VersionInfo kRuntimeVersion(KEL_VERSION_MAJOR, KEL_VERSION_MINOR, KEL_VERSION_PATCH);
}  // namespace

KelCommon::VersionInfo GetRuntimeVersion() noexcept { return kRuntimeVersion; }

bool IsCompatibleFrameworkVersion(const KelCommon::VersionInfo& compiled) noexcept {
    // Minor releases only add to the framework, so a plugin built against an
    // older minor version finds everything it uses; a newer one may not.
    return compiled.Major() == kRuntimeVersion.Major() && compiled.Minor() <= kRuntimeVersion.Minor();
}

}  // namespace KEL
