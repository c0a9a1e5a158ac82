#pragma once

#include <KEL/DataProfile.h>
#include <KelCommon/Export.h>

#include <memory>
#include <vector>

namespace KEL {

// The set of data profiles that a stream's atoms carry, in the order added.
// Copyable; copies share the DataProfile objects, which are immutable.
class KEL_API Profile {
public:
    Profile() = default;

    void Add(std::shared_ptr<DataProfile> profile);
    // True when every data profile of `other` matches one of this profile
    // (this profile covers the other). An empty `other` is covered by any
    // profile; a null `other` is covered by none.
    bool Describes(const std::shared_ptr<Profile>& other) const;

    const std::vector<std::shared_ptr<DataProfile>>& GetDataProfiles() const noexcept { return entries_; }
    std::size_t Size() const noexcept { return entries_.size(); }
    bool IsEmpty() const noexcept { return entries_.empty(); }

private:
    std::vector<std::shared_ptr<DataProfile>> entries_;
};

}  // namespace KEL
