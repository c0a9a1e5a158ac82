#pragma once

#include <string>
#include <vector>

#include "Command.h"

namespace KelTool {

// Without `verbosity`, no log line reaches stderr (the tool says what failed
// itself) unless KEL_LOG_LEVEL chose a level; each -v shows one level more,
// from warnings on.
void ApplyVerbosity(int verbosity);

// Loads the plugins the global options ask for: every --plugin file and
// every library of every --plugin-dir directory; with neither, the first
// directory of KEL::PluginLoader::SearchPath() that holds a loadable plugin.
// Refused libraries are reported on stderr as warnings. Returns false with
// `error` set when an explicitly named plugin or directory cannot be used,
// or when no plugin at all could be loaded. Safe to call more than once
// (a loaded library is not loaded again).
bool LoadPlugins(const GlobalOptions& options, std::string* error);

}  // namespace KelTool
