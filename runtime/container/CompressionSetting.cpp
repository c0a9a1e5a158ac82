#include <KEL/Compression.h>

#include <charconv>

namespace KEL {

bool ParseCompression(std::string_view text, CompressionSetting& out, std::string& error) {
    if (text == "none") {
        out = CompressionSetting{};
        return true;
    }
    const std::string_view codec = text.substr(0, text.find(':'));
    if (codec != "zstd") {
        error = "unknown compression '" + std::string(text) + "' (expected none, zstd or zstd:LEVEL)";
        return false;
    }
    CompressionSetting setting;
    setting.codec = CompressionCodec::kZstd;
    if (codec.size() < text.size()) {
        const std::string_view level = text.substr(codec.size() + 1);
        int value = 0;
        const auto [end, ec] = std::from_chars(level.data(), level.data() + level.size(), value);
        if (level.empty() || ec != std::errc{} || end != level.data() + level.size() || value < kMinZstdLevel ||
            value > kMaxZstdLevel || value == 0) {
            error = "zstd level '" + std::string(level) + "' is not a number from " + std::to_string(kMinZstdLevel) +
                    " to " + std::to_string(kMaxZstdLevel) + " other than 0";
            return false;
        }
        setting.level = value;
    }
    out = setting;
    return true;
}

std::string CompressionText(const CompressionSetting& setting) {
    if (!setting.Enabled()) {
        return "none";
    }
    return "zstd:" + std::to_string(setting.level);
}

}  // namespace KEL
