#pragma once

#include <KelCommon/Export.h>
#include <KelCommon/String.h>

#include <compare>
#include <cstdint>

namespace KelCommon {

// A major.minor.patch version record.
class KEL_API VersionInfo {
public:
    constexpr VersionInfo() noexcept = default;
    constexpr VersionInfo(std::uint32_t major, std::uint32_t minor, std::uint32_t patch) noexcept
        : major_(major), minor_(minor), patch_(patch) {}

    constexpr std::uint32_t Major() const noexcept { return major_; }
    constexpr std::uint32_t Minor() const noexcept { return minor_; }
    constexpr std::uint32_t Patch() const noexcept { return patch_; }

    // "major.minor.patch", for example "3.3.1".
    String ToString() const;

    friend constexpr auto operator<=>(const VersionInfo&, const VersionInfo&) noexcept = default;

private:
    std::uint32_t major_ = 0;
    std::uint32_t minor_ = 0;
    std::uint32_t patch_ = 0;
};

}  // namespace KelCommon
