#pragma once

#include <cstdint>
#include <string>

namespace Kel2File {

// The path of stream `streamId`'s own file: `basePath` with "_<streamId>"
// (decimal, no padding) inserted between its stem and its last extension.
// "d/rec.kel" gives "d/rec_12.kel", "d/rec" gives "d/rec_12",
// "rec.v2.data" gives "rec.v2_12.data". The extension is replaced by ".kel"
// later, when the file is opened.
std::string PerStreamFilePath(const std::string& basePath, std::uint16_t streamId);

}  // namespace Kel2File
