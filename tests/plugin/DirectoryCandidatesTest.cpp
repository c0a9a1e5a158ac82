#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "support/TestSupport.h"
#include "utils/Utils.h"

namespace {

namespace fs = std::filesystem;
using Kel2File::Utils;
using Paths = std::vector<std::string>;

class DirectoryCandidates : public ::testing::Test {
protected:
    void Touch(const fs::path& relative) { std::ofstream(root_ / relative) << "x"; }
    // Relative to the scratch directory and sorted: the order is the file
    // system's. Listed paths are canonical, so a path that is not does not
    // come out relative.
    std::vector<std::string> Candidates(const fs::path& dir, bool recursive = false) {
        std::vector<std::string> paths;
        for (const auto& path : Utils::CollectPotentialKELFilesInDirectory(dir.string(), recursive)) {
            paths.push_back(fs::path(path).lexically_relative(fs::canonical(root_)).string());
        }
        std::ranges::sort(paths);
        return paths;
    }

    kel_test::TempDir dir_;
    fs::path root_ = dir_.Path();
};

// Only regular files ending in lower-case ".kel" are listed, subdirectories
// only when searching recursively.
TEST_F(DirectoryCandidates, OnlyRegularFilesEndingInLowerCaseKelAreListed) {
    for (const char* name : {"take.kel", "clip.KEL", "clip.kel.bak", ".kel", "notes.txt"}) {
        Touch(name);
    }
    fs::create_directory(root_ / "folder.kel");
    fs::create_directory(root_ / "sub");
    Touch("sub/inner.kel");

    EXPECT_EQ(Candidates(root_), (Paths{".kel", "take.kel"}));
    EXPECT_EQ(Candidates(root_, true), (Paths{".kel", "sub/inner.kel", "take.kel"}));
}

// Each link is listed under its target's canonical path, so two links to one
// file give it twice; a relative directory reached through a link gives
// absolute canonical paths too.
TEST_F(DirectoryCandidates, LinksAreListedUnderTheirTargetsCanonicalPathOncePerLink) {
    fs::create_directory(root_ / "store");
    fs::create_directory(root_ / "scan");
    Touch("store/real.data");
    fs::create_symlink(root_ / "store" / "real.data", root_ / "scan" / "link.kel");
    fs::create_symlink(root_ / "store" / "real.data", root_ / "scan" / "two.kel");
    fs::create_directory_symlink(root_ / "scan", root_ / "alias");
    const auto previous = fs::current_path();
    fs::current_path(root_);
    const auto candidates = Candidates("alias");
    fs::current_path(previous);

    EXPECT_EQ(candidates, (Paths{"store/real.data", "store/real.data"}));
}

}  // namespace
