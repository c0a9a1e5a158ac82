#pragma once

#include <KEL/KelErrorCode.h>
#include <KEL/PluginInfo.h>
#include <KelCommon/Export.h>
#include <KelCommon/Guid.h>

#include <string>
#include <vector>

namespace KEL {

struct LoadedPlugin {
    std::string path;
    PluginInfo info;
    std::vector<KelCommon::Guid> filterClasses;  // registered while it loaded
};

// Loads plugin libraries with dlopen.
//
// A library is a plugin when it exports the descriptor `kel_plugin` and was
// built against a compatible framework version (KEL::IsCompatibleFrameworkVersion).
// Loading runs the library's static initialisation, which registers its
// filter classes. A library that fails to load, lacks the descriptor or was
// built against an incompatible version is refused: its registrations are
// undone, it is closed, and the error says why. Loaded plugins stay loaded
// for the life of the process (their code backs filters that may still
// exist). Loading the same file twice returns the first load. Thread-safe.
class KEL_API PluginLoader {
public:
    // Returns 0 and fills `loaded`, or a non-zero code with `error` set
    // ("'<path>': <reason>").
    static KelErrorCode LoadPlugin(const std::string& path, LoadedPlugin* loaded, std::string* error);
    // Loads every "*.so" file of a directory (not recursively), in name
    // order. Returns the number loaded; refusals are appended to `errors`.
    static std::size_t LoadPluginsFromDirectory(const std::string& directory, std::vector<std::string>* errors);
    static std::vector<LoadedPlugin> GetLoadedPlugins();
    // The default plugin directory: $KEL_PLUGIN_PATH when set, otherwise the
    // directory the runtime was installed to (lib/kel/plugins).
    static std::string DefaultPluginDirectory();
    // Where a host looks for plugins when it is not told, in order:
    // $KEL_PLUGIN_PATH when set; "plugins" beside the directory of this
    // runtime library (the build tree: <build>/runtime/libKel2.so and
    // <build>/plugins); "kel/plugins" inside that directory (an installed
    // runtime: <prefix>/lib/libKel2.so and <prefix>/lib/kel/plugins); the
    // directory the runtime was installed to. Each directory once.
    static std::vector<std::string> SearchPath();
    // Loads the plugins of the first directory of SearchPath() that holds
    // at least one loadable plugin. Returns the number loaded and sets
    // `directory` (when given) to where; refusals met on the way are
    // appended to `errors`.
    static std::size_t LoadFromSearchPath(std::string* directory, std::vector<std::string>* errors);
};

}  // namespace KEL
