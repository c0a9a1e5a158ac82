#pragma once

#include <KEL/Filter.h>
#include <KEL/FilterClassInfo.h>
#include <KelCommon/Export.h>
#include <KelCommon/Guid.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace KEL {

struct RegisteredFilterClass {
    KelCommon::Guid typeGuid;
    FilterClassInfo info;
    FilterCreator creator = nullptr;
    int registrationId = 0;
};

// The process-wide registry of filter classes. Thread-safe.
class KEL_API FilterFactory {
public:
    // Registers a class. Returns a positive registration id, or 0 when the
    // GUID is already registered (the first registration stays; the refusal
    // is logged at level 2). A repeated registration of the same GUID, name
    // and creator returns the existing id.
    static int RegisterFilterClass(const KelCommon::Guid& typeGuid, const FilterClassInfo& info, FilterCreator creator);
    static bool UnregisterFilterClass(const KelCommon::Guid& typeGuid);

    // A new filter of the class, or nullptr when unknown. The caller owns it.
    static std::unique_ptr<Filter> CreateFilter(const KelCommon::Guid& typeGuid);
    // By registered name, or by GUID text.
    static std::unique_ptr<Filter> CreateFilter(const std::string& nameOrGuid);

    static std::optional<RegisteredFilterClass> Find(const KelCommon::Guid& typeGuid);
    static std::optional<RegisteredFilterClass> FindByName(const std::string& name);
    // In registration order.
    static std::vector<RegisteredFilterClass> GetRegisteredClasses();

    // Host side: registrations made between Begin and End are attributed to
    // the plugin `provider` (its name goes into FilterClassInfo::GetProvider);
    // End returns their GUIDs so that a refused plugin can be unregistered.
    static void BeginPluginRegistration(const std::string& provider);
    static std::vector<KelCommon::Guid> EndPluginRegistration();
};

}  // namespace KEL
