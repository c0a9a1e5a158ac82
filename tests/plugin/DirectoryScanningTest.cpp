#include <KEL/KelErrorCode.h>
#include <KelCommon/Logger.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <boost/filesystem/exception.hpp>
#include <filesystem>
#include <fstream>

#include "plugin/RecordingFiles.h"
#include "sources/SourceKEL2MultiFileAppend.h"
#include "sources/SourceKEL2MultiFileReader.h"
#include "support/TestSupport.h"
#include "utils/Utils.h"

namespace {

namespace fs = std::filesystem;
using Kel2File::Utils;

void Touch(const fs::path& path) { std::ofstream(path) << "x"; }

std::string Canonical(const fs::path& path) { return fs::canonical(path).string(); }

class DirectoryCandidates : public ::testing::Test {
protected:
    // Sorted: the order is the file system's.
    std::vector<std::string> Candidates(const fs::path& dir, bool recursive = false) {
        auto paths = Utils::CollectPotentialKELFilesInDirectory(dir.string(), recursive);
        std::ranges::sort(paths);
        return paths;
    }
    std::vector<std::string> CanonicalPaths(std::initializer_list<fs::path> relative) {
        std::vector<std::string> paths;
        for (const auto& path : relative) {
            paths.push_back(Canonical(root_ / path));
        }
        std::ranges::sort(paths);
        return paths;
    }

    kel_test::TempDir dir_;
    fs::path root_ = dir_.Path();
};

TEST_F(DirectoryCandidates, OnlyRegularFilesEndingInLowerCaseKelAreListed) {
    for (const char* name : {"take.kel", "clip.KEL", "clip.kel.bak", ".kel", "notes.txt"}) {
        Touch(root_ / name);
    }
    fs::create_directory(root_ / "folder.kel");

    EXPECT_EQ(Candidates(root_), CanonicalPaths({".kel", "take.kel"}));
}

TEST_F(DirectoryCandidates, SubdirectoriesAreSearchedOnlyWhenRecursive) {
    Touch(root_ / "top.kel");
    fs::create_directory(root_ / "sub");
    Touch(root_ / "sub" / "inner.kel");

    EXPECT_EQ(Candidates(root_), CanonicalPaths({"top.kel"}));
    EXPECT_EQ(Candidates(root_, true), CanonicalPaths({"top.kel", "sub/inner.kel"}));
}

// Each link is listed under its target's canonical path, so two links to one
// file give it twice; a relative directory reached through a link gives
// absolute canonical paths too.
TEST_F(DirectoryCandidates, LinksAreListedUnderTheirTargetsCanonicalPathOncePerLink) {
    fs::create_directory(root_ / "store");
    fs::create_directory(root_ / "scan");
    Touch(root_ / "store" / "real.data");
    fs::create_symlink(root_ / "store" / "real.data", root_ / "scan" / "link.kel");
    fs::create_symlink(root_ / "store" / "real.data", root_ / "scan" / "two.kel");
    fs::create_directory_symlink(root_ / "scan", root_ / "alias");
    const auto previous = fs::current_path();
    fs::current_path(root_);
    const auto candidates = Candidates("alias");
    fs::current_path(previous);

    EXPECT_EQ(candidates, CanonicalPaths({"store/real.data", "store/real.data"}));
}

TEST_F(DirectoryCandidates, DanglingLinkOrMissingDirectoryRaisesAFilesystemError) {
    EXPECT_THROW(Candidates(root_ / "nope"), boost::filesystem::filesystem_error);

    fs::create_symlink(root_ / "gone.data", root_ / "broken.kel");
    EXPECT_THROW(Candidates(root_), boost::filesystem::filesystem_error);
}

// Failures that both directory sources report the same way, before they
// look into what the files hold. "%s" stands for the directory.
class DirectoryOpenFailure : public ::testing::TestWithParam<kel_test::InitFailureCase> {};

TEST_P(DirectoryOpenFailure, BothDirectorySourcesReportItAndStayClosed) {
    for (const auto creator : {&SourceKEL2MultiFileAppendFilterCreator, &SourceKEL2MultiFileReaderFilterCreator}) {
        SCOPED_TRACE(creator == &SourceKEL2MultiFileAppendFilterCreator ? "sequential" : "merged");
        kel_test::CheckInitFailure(creator, "KEL files dir", GetParam());
    }
}

const std::string kMissing = "Directory '%s' does not exist";
const std::string kCollectFailed = "Failed to collect kel files from '%s' directory";

INSTANTIATE_TEST_SUITE_P(
    Directories, DirectoryOpenFailure,
    ::testing::Values(kel_test::InitFailureCase{"MissingDirectoryFailsWithCodeOne",
                                                [](const kel_test::TempDir& dir) { return dir.File("absent"); },
                                                KEL::KEL_ERR_NOT_FOUND, kMissing},
                      kel_test::InitFailureCase{"FileInsteadOfDirectoryFailsWithCodeOne",
                                                kel_test::WriteFiles({{"a.kel", {{1, 2}}}}, {}, "a.kel"),
                                                KEL::KEL_ERR_NOT_FOUND, kMissing},
                      kel_test::InitFailureCase{"DirectoryWithoutContainersFailsWithCodeFour",
                                                [](const kel_test::TempDir& dir) {
                                                    Touch(dir.Path() / "a.KEL");
                                                    Touch(dir.Path() / "notes.txt");
                                                    fs::create_directory(dir.Path() / "b.kel");
                                                    return dir.Path().string();
                                                },
                                                KEL::KEL_ERR_INVALID, kCollectFailed,
                                                "Directory '%s' does not contain a sequence of files"},
                      kel_test::InitFailureCase{"FileThatDoesNotOpenFailsWithTheReadersCode",
                                                [](const kel_test::TempDir& dir) {
                                                    kel_test::WriteRecording(dir.File("a.kel"), {{1, 2}});
                                                    kel_test::WriteNonContainer(dir.File("b.kel"));
                                                    return dir.Path().string();
                                                },
                                                {},
                                                kCollectFailed,
                                                "",
                                                "b.kel"}),
    kel_test::CaseName());

TEST(DirectoryReaders, FirstFileThatDoesNotOpenEndsTheScan) {
    kel_test::TempDir dir;
    kel_test::WriteRecording(dir.File("a.kel"), {{1, 2}});
    const KEL::KelErrorCode expected = kel_test::WriteNonContainer(dir.File("b.kel"));
    std::ofstream(dir.File("c.kel")) << "neither is this one, and it must never be opened";
    std::vector<std::shared_ptr<KEL::ReadKEL2File>> readers;
    KelCommon::ScopedLogCapture capture;

    EXPECT_EQ(Kel2File::SourceKEL2MultiFileAppend().CollectReadersForFilesInDirectory(dir.Path().string(), readers),
              expected);

    ASSERT_EQ(readers.size(), 1U);
    EXPECT_EQ(readers[0]->GetFilePath(), Canonical(dir.File("a.kel")));
    EXPECT_EQ(capture.CountContaining("c.kel"), 0U);
    EXPECT_GE(capture.CountContaining("b.kel"), 1U);
}

}  // namespace
