#include <KelCommon/Guid.h>

#include <cstdio>
#include <string>

namespace KelCommon {

namespace {

int HexValue(char c) noexcept {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    return -1;
}

}  // namespace

std::optional<Guid> Guid::TryParse(std::string_view text) noexcept {
    if (text.size() == 38 && text.front() == '{' && text.back() == '}') {
        text = text.substr(1, 36);
    }
    if (text.size() != 36) {
        return std::nullopt;
    }
    std::array<std::uint8_t, kSize> bytes{};
    std::size_t byteIndex = 0;
    for (std::size_t i = 0; i < text.size();) {
        if (i == 8 || i == 13 || i == 18 || i == 23) {
            if (text[i] != '-') {
                return std::nullopt;
            }
            ++i;
            continue;
        }
        const int hi = HexValue(text[i]);
        const int lo = HexValue(text[i + 1]);
        if (hi < 0 || lo < 0 || i + 1 == 8 || i + 1 == 13 || i + 1 == 18 || i + 1 == 23) {
            return std::nullopt;
        }
        bytes[byteIndex++] = static_cast<std::uint8_t>((hi << 4) | lo);
        i += 2;
    }
    return Guid(bytes);
}

Guid Guid::FromHexString(const String& text) {
    auto parsed = TryParse(text.str());
    if (!parsed) {
        throw GuidParseError("not a GUID: '" + text.str() +
                             "' (expected 8-4-4-4-12 hexadecimal digits, e.g. B74863F3-13CF-47A0-9F90-07718FC52AB6)");
    }
    return *parsed;
}

String Guid::ToString() const {
    char out[37];
    std::snprintf(out, sizeof(out), "%02X%02X%02X%02X-%02X%02X-%02X%02X-%02X%02X-%02X%02X%02X%02X%02X%02X", bytes_[0],
                  bytes_[1], bytes_[2], bytes_[3], bytes_[4], bytes_[5], bytes_[6], bytes_[7], bytes_[8], bytes_[9],
                  bytes_[10], bytes_[11], bytes_[12], bytes_[13], bytes_[14], bytes_[15]);
    return String(out);
}

bool Guid::IsNull() const noexcept {
    for (auto b : bytes_) {
        if (b != 0) {
            return false;
        }
    }
    return true;
}

std::size_t Guid::Hash() const noexcept {
    // FNV-1a over the 16 bytes.
    std::uint64_t h = 1469598103934665603ULL;
    for (auto b : bytes_) {
        h ^= b;
        h *= 1099511628211ULL;
    }
    return static_cast<std::size_t>(h);
}

}  // namespace KelCommon
