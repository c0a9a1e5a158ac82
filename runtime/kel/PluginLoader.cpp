#include <KEL/FilterFactory.h>
#include <KEL/KELLogger.h>
#include <KEL/KelVersion.h>
#include <KEL/PluginLoader.h>
#include <dlfcn.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <system_error>

#ifndef KEL_INSTALL_PLUGIN_DIR
#define KEL_INSTALL_PLUGIN_DIR "/usr/local/lib/kel/plugins"
#endif

namespace KEL {

namespace {

struct LoadedLibrary {
    std::string key;  // canonical path
    void* handle = nullptr;
    LoadedPlugin plugin;
};

// Loads are serialised: the factory attributes registrations to "the plugin
// being loaded", which is only meaningful one load at a time.
struct LoaderState {
    std::mutex mutex;
    std::vector<LoadedLibrary> libraries;
};

LoaderState& TheState() {
    static LoaderState state;
    return state;
}

KelErrorCode Refuse(KelErrorCode code, const std::string& path, const std::string& reason, std::string* error) {
    const std::string message = "'" + path + "': " + reason;
    if (auto log = GetKELLoggerInstance().lock()) {
        log->LogMessage(2, "PluginLoader", "%s", message.c_str());
    }
    if (error != nullptr) {
        *error = message;
    }
    return code;
}

std::string CanonicalKey(const std::string& path) {
    std::error_code ec;
    auto canonical = std::filesystem::weakly_canonical(std::filesystem::absolute(path, ec), ec);
    return ec ? path : canonical.string();
}

void UndoRegistrations(const std::vector<KelCommon::Guid>& guids) {
    for (const auto& guid : guids) {
        FilterFactory::UnregisterFilterClass(guid);
    }
}

}  // namespace

KelErrorCode PluginLoader::LoadPlugin(const std::string& path, LoadedPlugin* loaded, std::string* error) {
    LoaderState& state = TheState();
    std::lock_guard lock(state.mutex);

    const std::string key = CanonicalKey(path);
    for (const auto& lib : state.libraries) {
        if (lib.key == key) {
            if (loaded != nullptr) {
                *loaded = lib.plugin;
            }
            return KEL_OK;
        }
    }

    std::error_code ec;
    if (!std::filesystem::is_regular_file(key, ec)) {
        return Refuse(KEL_ERR_NOT_FOUND, path, "no such file", error);
    }

    // The library's static initialisers register its filter classes during
    // dlopen; collect them so that a refusal can take them back.
    FilterFactory::BeginPluginRegistration(std::filesystem::path(key).filename().string());
    // NOLINTNEXTLINE(concurrency-mt-unsafe): loads are serialised by the loader's lock
    dlerror();
    void* handle = dlopen(key.c_str(), RTLD_NOW | RTLD_LOCAL);
    std::vector<KelCommon::Guid> registered = FilterFactory::EndPluginRegistration();
    if (handle == nullptr) {
        UndoRegistrations(registered);
        // NOLINTNEXTLINE(concurrency-mt-unsafe): loads are serialised by the loader's lock
        const char* why = dlerror();
        return Refuse(KEL_ERR_PLUGIN, path, std::string("cannot load library: ") + (why != nullptr ? why : "unknown"),
                      error);
    }

    const auto* descriptor = static_cast<const PluginInfo*>(dlsym(handle, KEL_PLUGIN_SYMBOL));
    if (descriptor == nullptr) {
        UndoRegistrations(registered);
        dlclose(handle);
        return Refuse(KEL_ERR_PLUGIN, path,
                      "not a KEL plugin: it does not export the descriptor \"" KEL_PLUGIN_SYMBOL "\"", error);
    }
    // Copied before any dlclose: the descriptor lives in the library.
    PluginInfo info = *descriptor;
    if (!IsCompatibleFrameworkVersion(info.frameworkVersion)) {
        UndoRegistrations(registered);
        dlclose(handle);
        return Refuse(KEL_ERR_PLUGIN, path,
                      "plugin \"" + info.name.str() + "\" was built against framework version " +
                          info.frameworkVersion.ToString().str() + ", which runtime version " +
                          GetRuntimeVersion().ToString().str() + " cannot load",
                      error);
    }

    LoadedLibrary lib;
    lib.key = key;
    lib.handle = handle;
    lib.plugin.path = key;
    lib.plugin.info = std::move(info);
    lib.plugin.filterClasses = std::move(registered);
    state.libraries.push_back(lib);
    if (auto log = GetKELLoggerInstance().lock()) {
        log->LogMessage(6, "PluginLoader", "loaded plugin \"%s\" %s from '%s' (%zu filter classes)",
                        lib.plugin.info.name.c_str(), lib.plugin.info.pluginVersion.c_str(), key.c_str(),
                        lib.plugin.filterClasses.size());
    }
    if (loaded != nullptr) {
        *loaded = lib.plugin;
    }
    return KEL_OK;
}

std::size_t PluginLoader::LoadPluginsFromDirectory(const std::string& directory, std::vector<std::string>* errors) {
    std::error_code ec;
    std::vector<std::string> candidates;
    for (std::filesystem::directory_iterator it(directory, ec), end; !ec && it != end; it.increment(ec)) {
        std::error_code statusError;
        if (it->path().extension() == ".so" && it->is_regular_file(statusError)) {
            candidates.push_back(it->path().string());
        }
    }
    if (ec) {
        if (errors != nullptr) {
            errors->push_back("'" + directory + "': cannot list plugin directory: " + ec.message());
        }
        return 0;
    }
    std::sort(candidates.begin(), candidates.end());
    std::size_t count = 0;
    for (const auto& candidate : candidates) {
        std::string error;
        if (LoadPlugin(candidate, nullptr, &error) == KEL_OK) {
            ++count;
        } else if (errors != nullptr) {
            errors->push_back(error);
        }
    }
    return count;
}

std::vector<LoadedPlugin> PluginLoader::GetLoadedPlugins() {
    LoaderState& state = TheState();
    std::lock_guard lock(state.mutex);
    std::vector<LoadedPlugin> plugins;
    plugins.reserve(state.libraries.size());
    for (const auto& lib : state.libraries) {
        plugins.push_back(lib.plugin);
    }
    return plugins;
}

std::string PluginLoader::DefaultPluginDirectory() {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): the runtime never changes the environment, so reading it is safe
    const char* env = std::getenv("KEL_PLUGIN_PATH");
    if (env != nullptr && *env != '\0') {
        return env;
    }
    return KEL_INSTALL_PLUGIN_DIR;
}

std::vector<std::string> PluginLoader::SearchPath() {
    std::vector<std::string> dirs;
    const auto add = [&](const std::filesystem::path& dir) {
        const std::string text = dir.lexically_normal().string();
        if (!text.empty() && std::find(dirs.begin(), dirs.end(), text) == dirs.end()) {
            dirs.push_back(text);
        }
    };
    // NOLINTNEXTLINE(concurrency-mt-unsafe): the runtime never changes the environment, so reading it is safe
    if (const char* env = std::getenv("KEL_PLUGIN_PATH"); env != nullptr && *env != '\0') {
        add(env);
    }
    Dl_info self{};
    if (::dladdr(reinterpret_cast<void*>(&PluginLoader::SearchPath), &self) != 0 && self.dli_fname != nullptr) {
        std::error_code ec;
        const std::filesystem::path library = std::filesystem::canonical(self.dli_fname, ec);
        if (!ec) {
            add(library.parent_path().parent_path() / "plugins");
            add(library.parent_path() / "kel" / "plugins");
        }
    }
    add(KEL_INSTALL_PLUGIN_DIR);
    return dirs;
}

std::size_t PluginLoader::LoadFromSearchPath(std::string* directory, std::vector<std::string>* errors) {
    for (const std::string& dir : SearchPath()) {
        std::error_code ec;
        if (!std::filesystem::is_directory(dir, ec)) {
            continue;
        }
        if (const std::size_t loaded = LoadPluginsFromDirectory(dir, errors); loaded > 0) {
            if (directory != nullptr) {
                *directory = dir;
            }
            return loaded;
        }
    }
    return 0;
}

}  // namespace KEL
