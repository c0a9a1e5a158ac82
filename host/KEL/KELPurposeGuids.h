#pragma once

#include <KelCommon/Export.h>
#include <KelCommon/Guid.h>
#include <KelCommon/String.h>

#include <optional>
#include <utility>
#include <vector>

namespace KEL {

// The process-wide registry of readable alias names for purpose GUIDs.
//
// Registering a pair that is already registered is harmless and returns true.
// A registration that conflicts with an existing one (the alias already names
// another GUID, or the GUID already has another alias) is refused: it returns
// false, logs at level 2 and leaves the registry unchanged. Thread-safe.
class KEL_API KELPurposeGuids {
public:
    static bool RegisterPurposeGuidAlias(const KelCommon::Guid& guid, const KelCommon::String& alias);

    static std::optional<KelCommon::Guid> ResolveAlias(const KelCommon::String& alias);
    static std::optional<KelCommon::String> GetAlias(const KelCommon::Guid& guid);
    // The alias when registered, otherwise the GUID's text form.
    static KelCommon::String Describe(const KelCommon::Guid& guid);
    static std::size_t Count();
    // Every (GUID, alias) pair, in the order first registered.
    static std::vector<std::pair<KelCommon::Guid, KelCommon::String>> All();
};

}  // namespace KEL
