#pragma once

#include <KelCommon/Export.h>
#include <KelCommon/VersionInfo.h>

// The framework's version, stated here once: the runtime, its shared
// libraries and CMake package (CMakeLists.txt reads these lines) and the
// plugins built against this header all take it from here.
#define KEL_VERSION_MAJOR 6
#define KEL_VERSION_MINOR 3
#define KEL_VERSION_PATCH 0
#define KEL_VERSION_TEXT "6.3.0"
// The tag a plugin descriptor carries for the framework version.
#define KEL_VERSION_TAG "kelversion_" KEL_VERSION_TEXT

namespace KEL {

// The framework version a unit is compiled against: every plugin holds its
// own copy, taken from this header when it was built.
static const KelCommon::VersionInfo KEL_COMPILE_VERSION(KEL_VERSION_MAJOR, KEL_VERSION_MINOR, KEL_VERSION_PATCH);

// The version of the running framework library.
KEL_API KelCommon::VersionInfo GetRuntimeVersion() noexcept;

// A plugin built against `compiled` can be loaded by this runtime when the
// major versions agree and the plugin's minor version is not newer.
KEL_API bool IsCompatibleFrameworkVersion(const KelCommon::VersionInfo& compiled) noexcept;

}  // namespace KEL
