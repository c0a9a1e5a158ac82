#include <KEL/KelErrorCode.h>
#include <KelCommon/Logger.h>
#include <gtest/gtest.h>
#include <unistd.h>

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

std::vector<std::string> Sorted(std::vector<std::string> paths) {
    std::sort(paths.begin(), paths.end());
    return paths;
}

// Runs the body with the working directory set to `dir`, restoring it after.
class WorkingDirectory {
public:
    explicit WorkingDirectory(const fs::path& dir) : previous_(fs::current_path()) { fs::current_path(dir); }
    ~WorkingDirectory() { fs::current_path(previous_); }
    WorkingDirectory(const WorkingDirectory&) = delete;
    WorkingDirectory& operator=(const WorkingDirectory&) = delete;

private:
    fs::path previous_;
};

class DirectoryCandidates : public ::testing::Test {
protected:
    std::vector<std::string> Candidates(const fs::path& dir, bool recursive = false) {
        return Utils::CollectPotentialKELFilesInDirectory(dir.string(), recursive);
    }
    std::vector<std::string> CanonicalPaths(std::initializer_list<fs::path> relative) {
        std::vector<std::string> paths;
        for (const auto& path : relative) {
            paths.push_back(Canonical(root_ / path));
        }
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

    EXPECT_EQ(Sorted(Candidates(root_)), Sorted(CanonicalPaths({".kel", "take.kel"})));
}

TEST_F(DirectoryCandidates, SubdirectoriesAreSearchedOnlyWhenRecursive) {
    Touch(root_ / "top.kel");
    fs::create_directory(root_ / "sub");
    Touch(root_ / "sub" / "inner.kel");

    EXPECT_EQ(Candidates(root_), CanonicalPaths({"top.kel"}));
    EXPECT_EQ(Sorted(Candidates(root_, true)), Sorted(CanonicalPaths({"top.kel", "sub/inner.kel"})));
}

TEST_F(DirectoryCandidates, LinksAreListedUnderTheirTargetsCanonicalPathOncePerLink) {
    fs::create_directory(root_ / "store");
    fs::create_directory(root_ / "scan");
    Touch(root_ / "store" / "real.data");
    fs::create_symlink(root_ / "store" / "real.data", root_ / "scan" / "link.kel");

    EXPECT_EQ(Candidates(root_ / "scan"), CanonicalPaths({"store/real.data"}));

    fs::create_symlink(root_ / "store" / "real.data", root_ / "scan" / "two.kel");
    EXPECT_EQ(Candidates(root_ / "scan"), CanonicalPaths({"store/real.data", "store/real.data"}));
}

TEST_F(DirectoryCandidates, RelativeDirectoryThroughALinkGivesCanonicalPaths) {
    fs::create_directory(root_ / "real");
    Touch(root_ / "real" / "a.kel");
    fs::create_directory_symlink(root_ / "real", root_ / "alias");
    WorkingDirectory cwd(root_);

    const auto candidates = Candidates("alias");

    EXPECT_EQ(candidates, CanonicalPaths({"real/a.kel"}));
    ASSERT_EQ(candidates.size(), 1U);
    EXPECT_TRUE(fs::path(candidates[0]).is_absolute());
}

TEST_F(DirectoryCandidates, DanglingLinkOrMissingDirectoryRaisesAFilesystemError) {
    EXPECT_THROW(Candidates(root_ / "nope"), boost::filesystem::filesystem_error);

    fs::create_symlink(root_ / "gone.data", root_ / "broken.kel");
    EXPECT_THROW(Candidates(root_), boost::filesystem::filesystem_error);
}

TEST(DirectoryReaders, DirectoryWithoutCandidatesLogsAndGivesFour) {
    kel_test::TempDir dir;
    Touch(dir.Path() / "a.KEL");
    fs::create_directory(dir.Path() / "b.kel");
    Kel2File::SourceKEL2MultiFileAppend sequential;
    Kel2File::SourceKEL2MultiFileReader merged;
    std::vector<std::shared_ptr<KEL::ReadKEL2File>> readers;
    KelCommon::ScopedLogCapture capture;

    EXPECT_EQ(sequential.CollectReadersForFilesInDirectory(dir.Path().string(), readers), KEL::KEL_ERR_INVALID);
    EXPECT_EQ(merged.CollectReadersForFilesInDirectory(dir.Path().string(), readers), KEL::KEL_ERR_INVALID);

    EXPECT_TRUE(readers.empty());
    EXPECT_EQ(capture.Count("Directory '" + dir.Path().string() + "' does not contain a sequence of files"), 2U);
}

TEST(DirectoryReaders, CorruptSecondFileStopsTheScanWithItsCode) {
    kel_test::TempDir dir;
    kel_test::WriteRecording(dir.File("a.kel"), {{1, 2}});
    const KEL::KelErrorCode expected = kel_test::WriteNonContainer(dir.File("b.kel"));
    std::ofstream(dir.File("c.kel")) << "neither is this one, and it must never be opened";
    Kel2File::SourceKEL2MultiFileAppend sequential;
    std::vector<std::shared_ptr<KEL::ReadKEL2File>> readers;
    KelCommon::ScopedLogCapture capture;

    const KEL::KelErrorCode code = sequential.CollectReadersForFilesInDirectory(dir.Path().string(), readers);

    EXPECT_EQ(code, expected);
    ASSERT_EQ(readers.size(), 1U);
    EXPECT_EQ(readers[0]->GetFilePath(), Canonical(dir.File("a.kel")));
    EXPECT_EQ(capture.CountContaining("c.kel"), 0U);
    EXPECT_GE(capture.CountContaining("b.kel"), 1U);
}

}  // namespace
