#pragma once

#include <KelCommon/String.h>
#include <KelCommon/VersionInfo.h>

namespace KEL {

// The descriptor a plugin library exports under the C symbol `kel_plugin`.
struct PluginInfo {
    KelCommon::String name;
    KelCommon::String pluginVersion;
    KelCommon::VersionInfo frameworkVersion;  // the framework version the plugin was compiled against
    KelCommon::String frameworkVersionTag;    // "kelversion_<major>.<minor>.<patch>"
};

}  // namespace KEL

// Name of the exported descriptor symbol.
#define KEL_PLUGIN_SYMBOL "kel_plugin"
