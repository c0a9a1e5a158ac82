#pragma once

#include <KelCommon/Export.h>
#include <KelCommon/Guid.h>

#include <cstdint>
#include <memory>

namespace KEL {

// Describes one kind of data layer: its data type and its purpose. Two data
// profiles match when both GUIDs are equal; the layer version is carried for
// information and does not take part in matching (a stream may move from one
// camera-parameter version to another without changing what it carries).
class KEL_API DataProfile {
public:
    DataProfile(const KelCommon::Guid& typeGuid, const KelCommon::Guid& purposeGuid, std::uint16_t version = 0)
        : typeGuid_(typeGuid), purposeGuid_(purposeGuid), version_(version) {}

    const KelCommon::Guid& GetTypeGuid() const noexcept { return typeGuid_; }
    const KelCommon::Guid& GetPurposeGuid() const noexcept { return purposeGuid_; }
    std::uint16_t GetVersion() const noexcept { return version_; }

    bool Matches(const DataProfile& other) const noexcept {
        return typeGuid_ == other.typeGuid_ && purposeGuid_ == other.purposeGuid_;
    }

private:
    KelCommon::Guid typeGuid_;
    KelCommon::Guid purposeGuid_;
    std::uint16_t version_;
};

}  // namespace KEL
