#pragma once

#include <KelCommon/Export.h>
#include <KelCommon/VersionInfo.h>

namespace KEL {

// The framework version a unit is compiled against: every plugin holds its
// own copy, taken from this header when it was built.
static const KelCommon::VersionInfo KEL_COMPILE_VERSION(6, 3, 0);

// The version of the running framework library.
KEL_API KelCommon::VersionInfo GetRuntimeVersion() noexcept;

// A plugin built against `compiled` can be loaded by this runtime when the
// major versions agree and the plugin's minor version is not newer.
KEL_API bool IsCompatibleFrameworkVersion(const KelCommon::VersionInfo& compiled) noexcept;

}  // namespace KEL
