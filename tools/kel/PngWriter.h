#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace KelTool {

// Writes an 8-bit RGBA image (rows top to bottom, no padding: exactly
// width * height * 4 bytes at `pixels`) as a PNG file, replacing any file of
// that name. Returns false with `error` set when the size is invalid or the
// file cannot be written; a partly written file is removed.
bool WritePngRgba(const std::string& path, std::uint32_t width, std::uint32_t height, const std::uint8_t* pixels,
                  std::size_t size, std::string* error);

// The same image as the bytes of a PNG file in memory; empty with `error`
// set when the size is invalid or libpng fails.
std::vector<std::uint8_t> EncodePngRgba(std::uint32_t width, std::uint32_t height, const std::uint8_t* pixels,
                                        std::size_t size, std::string* error);

}  // namespace KelTool
