#include "writers/PerStreamFilePath.h"

#include <boost/filesystem/path.hpp>

namespace Kel2File {

std::string PerStreamFilePath(const std::string& basePath, std::uint16_t streamId) {
    const boost::filesystem::path path(basePath);
    const std::string name = path.stem().string() + "_" + std::to_string(streamId) + path.extension().string();
    return (path.parent_path() / name).string();
}

}  // namespace Kel2File
