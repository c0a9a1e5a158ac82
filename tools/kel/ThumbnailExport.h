#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace KelTool {

struct ThumbnailExport {
    std::uint16_t stream = 0;
    std::uint32_t width = 0;
    std::uint32_t height = 0;
    bool stored = false;  // true: the file's own thumbnail; false: made from the first frame
};

// Writes the thumbnail of a stream's first atom in container file `path` as
// the PNG file `pngPath`: the stored thumbnail layer (purpose THUMBNAIL,
// RGBA texture), or, when there is none or `regenerate` is set, one made on
// the spot from the atom's first image. `stream` empty: the file's first
// stream. Returns nothing with `error` set when the file cannot be opened,
// has no such stream, holds no image, or the PNG cannot be written.
std::optional<ThumbnailExport> ExportThumbnail(const std::string& path, std::optional<std::uint32_t> stream,
                                               bool regenerate, const std::string& pngPath, std::string* error);

}  // namespace KelTool
