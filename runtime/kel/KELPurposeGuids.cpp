#include <KEL/KELLogger.h>
#include <KEL/KELPurposeGuids.h>

#include <mutex>
#include <unordered_map>

namespace KEL {

namespace {

struct Registry {
    std::mutex mutex;
    std::unordered_map<KelCommon::Guid, KelCommon::String> aliasOf;
    std::unordered_map<KelCommon::String, KelCommon::Guid> guidOf;
    std::vector<std::pair<KelCommon::Guid, KelCommon::String>> order;
};

Registry& TheRegistry() {
    static Registry registry;
    return registry;
}

}  // namespace

bool KELPurposeGuids::RegisterPurposeGuidAlias(const KelCommon::Guid& guid, const KelCommon::String& alias) {
    auto& r = TheRegistry();
    std::string conflict;
    {
        std::lock_guard lock(r.mutex);
        auto byGuid = r.aliasOf.find(guid);
        auto byAlias = r.guidOf.find(alias);
        if (byGuid != r.aliasOf.end() && byGuid->second == alias) {
            return true;
        }
        if (byGuid != r.aliasOf.end()) {
            conflict =
                "purpose GUID " + guid.ToString().str() + " already has the alias '" + byGuid->second.str() + "'";
        } else if (byAlias != r.guidOf.end()) {
            conflict = "alias '" + alias.str() + "' already names purpose GUID " + byAlias->second.ToString().str();
        } else {
            r.aliasOf.emplace(guid, alias);
            r.guidOf.emplace(alias, guid);
            r.order.emplace_back(guid, alias);
            return true;
        }
    }
    if (auto log = GetKELLoggerInstance().lock()) {
        log->LogMessage(2, "KEL", "Refusing purpose alias '%s' for %s: %s", alias.c_str(), guid.ToString().c_str(),
                        conflict.c_str());
    }
    return false;
}

std::optional<KelCommon::Guid> KELPurposeGuids::ResolveAlias(const KelCommon::String& alias) {
    auto& r = TheRegistry();
    std::lock_guard lock(r.mutex);
    if (auto it = r.guidOf.find(alias); it != r.guidOf.end()) {
        return it->second;
    }
    return std::nullopt;
}

std::optional<KelCommon::String> KELPurposeGuids::GetAlias(const KelCommon::Guid& guid) {
    auto& r = TheRegistry();
    std::lock_guard lock(r.mutex);
    if (auto it = r.aliasOf.find(guid); it != r.aliasOf.end()) {
        return it->second;
    }
    return std::nullopt;
}

KelCommon::String KELPurposeGuids::Describe(const KelCommon::Guid& guid) {
    if (auto alias = GetAlias(guid)) {
        return *alias;
    }
    return guid.ToString();
}

std::size_t KELPurposeGuids::Count() {
    auto& r = TheRegistry();
    std::lock_guard lock(r.mutex);
    return r.order.size();
}

std::vector<std::pair<KelCommon::Guid, KelCommon::String>> KELPurposeGuids::All() {
    auto& r = TheRegistry();
    std::lock_guard lock(r.mutex);
    return r.order;
}

}  // namespace KEL
