#include "view/TakeCatalog.h"

#include <algorithm>
#include <filesystem>
#include <set>
#include <system_error>

namespace KelView {

namespace {

namespace fs = std::filesystem;

// Whether `path` lies inside `dir` (both canonical).
bool Inside(const fs::path& path, const fs::path& dir) {
    const auto [d, p] = std::mismatch(dir.begin(), dir.end(), path.begin(), path.end());
    return d == dir.end() && p != path.end();
}

}  // namespace

std::vector<TakeFile> FindTakeFiles(const std::vector<std::string>& paths, std::string* error) {
    std::vector<TakeFile> takes;
    std::set<std::string> seen;
    const auto add = [&](const fs::path& canonical, std::string name) {
        if (seen.insert(canonical.string()).second) {
            takes.push_back({canonical.string(), std::move(name)});
        }
    };
    for (const std::string& named : paths) {
        std::error_code ec;
        const fs::path canonical = fs::canonical(named, ec);
        if (ec) {
            *error = "cannot open '" + named + "': " + ec.message();
            return {};
        }
        if (fs::is_regular_file(canonical, ec)) {
            add(canonical, fs::path(named).filename().string());
            continue;
        }
        if (!fs::is_directory(canonical, ec)) {
            *error = "'" + named + "' is neither a file nor a directory";
            return {};
        }
        std::vector<TakeFile> found;
        fs::directory_iterator entries(canonical, ec);
        if (ec) {
            *error = "cannot read the directory '" + named + "': " + ec.message();
            return {};
        }
        for (const fs::directory_entry& entry : entries) {
            if (entry.path().extension() != ".kel") {
                continue;
            }
            std::error_code entryError;
            const fs::path target = fs::canonical(entry.path(), entryError);
            if (entryError || !Inside(target, canonical) || !fs::is_regular_file(target, entryError)) {
                continue;
            }
            found.push_back({target.string(), (canonical.filename() / entry.path().filename()).string()});
        }
        std::sort(found.begin(), found.end(), [](const TakeFile& a, const TakeFile& b) { return a.name < b.name; });
        for (TakeFile& take : found) {
            add(take.path, std::move(take.name));
        }
    }
    if (takes.empty()) {
        *error = "no container file (.kel) to show in the paths given";
    }
    return takes;
}

}  // namespace KelView
