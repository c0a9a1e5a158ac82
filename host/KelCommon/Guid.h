#pragma once

#include <KelCommon/Export.h>
#include <KelCommon/String.h>

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string_view>

namespace KelCommon {

// Thrown by Guid::FromHexString for text that is not a GUID.
class KEL_API GuidParseError : public std::invalid_argument {
public:
    using std::invalid_argument::invalid_argument;
};

// A 128-bit identifier, written as "B74863F3-13CF-47A0-9F90-07718FC52AB6"
// (8-4-4-4-12 hexadecimal digits, either case, optional surrounding braces).
// The bytes are stored in text order, so the binary form written to files is
// the text read left to right.
class KEL_API Guid {
public:
    static constexpr std::size_t kSize = 16;

    constexpr Guid() noexcept = default;
    explicit constexpr Guid(const std::array<std::uint8_t, kSize>& bytes) noexcept : bytes_(bytes) {}

    // Parses the text form. Throws GuidParseError naming the offending text.
    static Guid FromHexString(const String& text);
    // Same, without throwing: empty on bad text.
    static std::optional<Guid> TryParse(std::string_view text) noexcept;

    // Upper-case text form without braces.
    String ToString() const;

    bool IsNull() const noexcept;
    const std::array<std::uint8_t, kSize>& Bytes() const noexcept { return bytes_; }

    friend bool operator==(const Guid&, const Guid&) noexcept = default;
    // NOLINTNEXTLINE(modernize-use-nullptr): clang-tidy 14 misreads the defaulted comparison
    friend auto operator<=>(const Guid&, const Guid&) noexcept = default;

    std::size_t Hash() const noexcept;

private:
    std::array<std::uint8_t, kSize> bytes_{};
};

}  // namespace KelCommon

template <>
struct std::hash<KelCommon::Guid> {
    std::size_t operator()(const KelCommon::Guid& g) const noexcept { return g.Hash(); }
};
