#include <KelCommon/StringHelper.h>

#include <boost/filesystem.hpp>

#include "utils/Utils.h"

namespace Kel2File {

namespace {

const std::string kKelExtension = ".kel";

template <typename Iterator>
std::vector<std::string> CollectCandidates(const std::string& directory) {
    std::vector<std::string> candidates;
    // Opened without an error code: a directory that cannot be iterated
    // throws, and so does a candidate that cannot be canonicalised (a
    // dangling link). The callers check that the directory exists first.
    for (Iterator it(directory); it != Iterator(); ++it) {
        const std::string entryPath = it->path().string();
        if (!KelCommon::StringHelper::endsWith_CaseSensitive(entryPath, kKelExtension)) {
            continue;
        }
        const boost::filesystem::path canonicalPath =
            boost::filesystem::canonical(it->path(), boost::filesystem::current_path());
        if (boost::filesystem::status(canonicalPath).type() == boost::filesystem::regular_file) {
            candidates.push_back(canonicalPath.string());
        }
    }
    return candidates;
}

}  // namespace

std::vector<std::string> Utils::CollectPotentialKELFilesInDirectory(std::string directory, bool recursive) {
    if (recursive) {
        return CollectCandidates<boost::filesystem::recursive_directory_iterator>(directory);
    }
    return CollectCandidates<boost::filesystem::directory_iterator>(directory);
}

}  // namespace Kel2File
