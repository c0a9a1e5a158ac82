#pragma once

#include <KEL/PluginInfo.h>
#include <KelCommon/VersionInfo.h>

namespace Kel2File {

// The plugin's own version.
extern const KelCommon::VersionInfo KEL2FILE_VERSION;

}  // namespace Kel2File

// The descriptor the host reads when it loads the library.
extern "C" KEL::PluginInfo kel_plugin;  // NOLINT(readability-identifier-naming)
