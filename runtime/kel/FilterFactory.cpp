#include <KEL/FilterFactory.h>
#include <KEL/KELLogger.h>

#include <algorithm>
#include <exception>
#include <mutex>
#include <utility>

namespace KEL {

namespace {

// The registry lives in a function-local static so that plugins registering
// from their own static initialisers never see it unconstructed.
struct Registry {
    std::mutex mutex;
    std::vector<RegisteredFilterClass> classes;
    int nextId = 1;
    bool pluginRegistrationActive = false;
    std::string provider;
    std::vector<KelCommon::Guid> pluginGuids;
};

Registry& TheRegistry() {
    static Registry registry;
    return registry;
}

void LogError(const std::string& message) {
    if (auto log = GetKELLoggerInstance().lock()) {
        log->LogMessage(2, "FilterFactory", "%s", message.c_str());
    }
}

}  // namespace

int FilterFactory::RegisterFilterClass(const KelCommon::Guid& typeGuid, const FilterClassInfo& info,
                                       FilterCreator creator) {
    std::string refusal;
    {
        Registry& reg = TheRegistry();
        std::lock_guard lock(reg.mutex);
        auto it =
            std::find_if(reg.classes.begin(), reg.classes.end(), [&](const auto& c) { return c.typeGuid == typeGuid; });
        if (creator == nullptr) {
            refusal = "filter class \"" + info.GetName().str() + "\" has no creator; registration refused";
        } else if (it != reg.classes.end()) {
            if (it->info.GetName() == info.GetName() && it->creator == creator) {
                return it->registrationId;
            }
            refusal = "filter class \"" + info.GetName().str() + "\" (" + typeGuid.ToString().str() +
                      "): the GUID is already registered by \"" + it->info.GetName().str() + "\"; registration refused";
        } else {
            RegisteredFilterClass entry{typeGuid, info, creator, reg.nextId++};
            if (reg.pluginRegistrationActive) {
                entry.info.SetProvider(reg.provider);
                reg.pluginGuids.push_back(typeGuid);
            }
            reg.classes.push_back(std::move(entry));
            return reg.classes.back().registrationId;
        }
    }
    LogError(refusal);
    return 0;
}

bool FilterFactory::UnregisterFilterClass(const KelCommon::Guid& typeGuid) {
    Registry& reg = TheRegistry();
    std::lock_guard lock(reg.mutex);
    auto it =
        std::find_if(reg.classes.begin(), reg.classes.end(), [&](const auto& c) { return c.typeGuid == typeGuid; });
    if (it == reg.classes.end()) {
        return false;
    }
    reg.classes.erase(it);
    return true;
}

std::unique_ptr<Filter> FilterFactory::CreateFilter(const KelCommon::Guid& typeGuid) {
    const auto found = Find(typeGuid);
    if (!found) {
        return nullptr;
    }
    try {
        return std::unique_ptr<Filter>(found->creator());
    } catch (const std::exception& e) {
        LogError("creating a \"" + found->info.GetName().str() + "\" filter threw: " + e.what());
    } catch (...) {
        LogError("creating a \"" + found->info.GetName().str() + "\" filter threw an unknown exception");
    }
    return nullptr;
}

std::unique_ptr<Filter> FilterFactory::CreateFilter(const std::string& nameOrGuid) {
    if (const auto byName = FindByName(nameOrGuid)) {
        return CreateFilter(byName->typeGuid);
    }
    if (const auto guid = KelCommon::Guid::TryParse(nameOrGuid)) {
        return CreateFilter(*guid);
    }
    return nullptr;
}

std::optional<RegisteredFilterClass> FilterFactory::Find(const KelCommon::Guid& typeGuid) {
    Registry& reg = TheRegistry();
    std::lock_guard lock(reg.mutex);
    for (const auto& c : reg.classes) {
        if (c.typeGuid == typeGuid) {
            return c;
        }
    }
    return std::nullopt;
}

std::optional<RegisteredFilterClass> FilterFactory::FindByName(const std::string& name) {
    Registry& reg = TheRegistry();
    std::lock_guard lock(reg.mutex);
    for (const auto& c : reg.classes) {
        if (c.info.GetName() == name) {
            return c;
        }
    }
    return std::nullopt;
}

std::vector<RegisteredFilterClass> FilterFactory::GetRegisteredClasses() {
    Registry& reg = TheRegistry();
    std::lock_guard lock(reg.mutex);
    return reg.classes;
}

void FilterFactory::BeginPluginRegistration(const std::string& provider) {
    Registry& reg = TheRegistry();
    std::lock_guard lock(reg.mutex);
    reg.pluginRegistrationActive = true;
    reg.provider = provider;
    reg.pluginGuids.clear();
}

std::vector<KelCommon::Guid> FilterFactory::EndPluginRegistration() {
    Registry& reg = TheRegistry();
    std::lock_guard lock(reg.mutex);
    reg.pluginRegistrationActive = false;
    reg.provider.clear();
    return std::exchange(reg.pluginGuids, {});
}

}  // namespace KEL
