#include <KEL/Profile.h>

#include <algorithm>

namespace KEL {

void Profile::Add(std::shared_ptr<DataProfile> profile) {
    if (profile) {
        entries_.push_back(std::move(profile));
    }
}

bool Profile::Describes(const std::shared_ptr<Profile>& other) const {
    if (!other) {
        return false;
    }
    return std::all_of(other->entries_.begin(), other->entries_.end(), [this](const auto& wanted) {
        return std::any_of(entries_.begin(), entries_.end(), [&](const auto& have) { return have->Matches(*wanted); });
    });
}

}  // namespace KEL
