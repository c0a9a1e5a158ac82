#pragma once

#include <KelCommon/Export.h>

#include <cstdint>
#include <string>
#include <string_view>

namespace KEL {

// How the serializer stores the blobs of an atom (pixels, vertices, ...).
enum class CompressionCodec : std::uint8_t {
    kNone = 0,  // as they are: the layout every reader of this format reads
    kZstd = 1,  // zstd, in independent frames of 1 MiB of original bytes
};

struct CompressionSetting {
    CompressionCodec codec = CompressionCodec::kNone;
    // zstd's level, 1 (fastest) to 19; negative levels trade ratio for speed.
    int level = 1;

    bool Enabled() const noexcept { return codec != CompressionCodec::kNone; }
    friend bool operator==(const CompressionSetting&, const CompressionSetting&) = default;
};

inline constexpr int kMinZstdLevel = -7;
inline constexpr int kMaxZstdLevel = 19;

// Parses "none", "zstd" or "zstd:LEVEL" (the form of `kel copy --compress`,
// of a graph file's "compression" option and of KEL_COMPRESSION). False,
// with `error` set, for anything else.
KEL_API bool ParseCompression(std::string_view text, CompressionSetting& out, std::string& error);
// "none" or "zstd:LEVEL".
KEL_API std::string CompressionText(const CompressionSetting& setting);

}  // namespace KEL
