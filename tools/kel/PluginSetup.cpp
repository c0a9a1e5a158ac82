#include "PluginSetup.h"

#include <KEL/KELLogger.h>
#include <KEL/PluginLoader.h>
#include <KelCommon/Logger.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <system_error>

namespace KelTool {

namespace fs = std::filesystem;

void ApplyVerbosity(int verbosity) {
    auto logger = KEL::GetKELLoggerInstance().lock();
    if (!logger) {
        return;
    }
    // The tool says what failed itself, once: the log lines of the runtime
    // and the plugins would repeat it (a missing file gave five lines).
    // KEL_LOG_LEVEL still sets a starting level of the user's choice.
    // NOLINTNEXTLINE(concurrency-mt-unsafe): read once, before any thread starts
    const char* env = std::getenv("KEL_LOG_LEVEL");
    const bool chosen = env != nullptr && *env != '\0';
    if (verbosity <= 0) {
        if (!chosen) {
            logger->SetStderrLevel(KelCommon::LOG_OFF);
        }
        return;
    }
    const int from = chosen ? logger->GetStderrLevel() : KelCommon::LOG_WARNING - 1;
    logger->SetStderrLevel(std::min(from + verbosity, static_cast<int>(KelCommon::LOG_TRACE)));
}

namespace {

void WarnRefusals(const std::vector<std::string>& refusals) {
    for (const auto& refusal : refusals) {
        std::cerr << "kel: warning: plugin refused: " << refusal << '\n';
    }
}

}  // namespace

bool LoadPlugins(const GlobalOptions& options, std::string* error) {
    std::size_t loaded = 0;
    for (const auto& path : options.pluginPaths) {
        KEL::LoadedPlugin plugin;
        std::string why;
        if (KEL::PluginLoader::LoadPlugin(path, &plugin, &why) != 0) {
            *error = "cannot load plugin " + why;
            return false;
        }
        ++loaded;
    }
    for (const auto& dir : options.pluginDirs) {
        std::error_code ec;
        if (!fs::is_directory(dir, ec)) {
            *error = "plugin directory '" + dir + "' does not exist";
            return false;
        }
        std::vector<std::string> refusals;
        loaded += KEL::PluginLoader::LoadPluginsFromDirectory(dir, &refusals);
        WarnRefusals(refusals);
    }
    if (options.pluginPaths.empty() && options.pluginDirs.empty()) {
        std::vector<std::string> refusals;
        loaded += KEL::PluginLoader::LoadFromSearchPath(nullptr, &refusals);
        WarnRefusals(refusals);
        if (loaded == 0 && KEL::PluginLoader::GetLoadedPlugins().empty()) {
            std::string searched;
            for (const auto& dir : KEL::PluginLoader::SearchPath()) {
                searched += (searched.empty() ? "" : ", ") + dir;
            }
            *error = "no plugin found (searched " + searched + "); use --plugin-dir or --plugin";
            return false;
        }
    }
    return true;
}

}  // namespace KelTool
