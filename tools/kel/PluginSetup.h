#pragma once

#include <string>
#include <vector>

#include "Command.h"

namespace KelTool {

// Raises the host logger's stderr threshold by `verbosity` levels above its
// current value (capped at the most detailed level).
void ApplyVerbosity(int verbosity);

// The directories searched for plugins when the command line names none, in
// order: the build tree's plugin directory when this executable runs from
// its build tree, the `plugins` directory beside the executable's directory
// (<prefix>/bin/kel finds <prefix>/plugins), <prefix>/lib/kel/plugins, then
// the runtime's default plugin directory.
std::vector<std::string> DefaultPluginSearchPath();

// Loads the plugins the global options ask for: every --plugin file and
// every library of every --plugin-dir directory; with neither, the first
// directory of DefaultPluginSearchPath() that holds a loadable plugin.
// Refused libraries are reported on stderr as warnings. Returns false with
// `error` set when an explicitly named plugin or directory cannot be used,
// or when no plugin at all could be loaded. Safe to call more than once
// (a loaded library is not loaded again).
bool LoadPlugins(const GlobalOptions& options, std::string* error);

}  // namespace KelTool
