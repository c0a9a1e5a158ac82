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

TEST(DirectoryCandidates, OnlyRegularFilesEndingInLowerCaseKelAreListed) {
    kel_test::TempDir dir;
    Touch(dir.Path() / "take.kel");
    Touch(dir.Path() / "clip.KEL");
    Touch(dir.Path() / "clip.kel.bak");
    Touch(dir.Path() / ".kel");
    Touch(dir.Path() / "notes.txt");
    fs::create_directory(dir.Path() / "folder.kel");

    const auto candidates = Utils::CollectPotentialKELFilesInDirectory(dir.Path().string(), false);

    EXPECT_EQ(Sorted(candidates), Sorted({Canonical(dir.Path() / ".kel"), Canonical(dir.Path() / "take.kel")}));
}

TEST(DirectoryCandidates, SubdirectoriesAreSearchedOnlyWhenRecursive) {
    kel_test::TempDir dir;
    Touch(dir.Path() / "top.kel");
    fs::create_directory(dir.Path() / "sub");
    Touch(dir.Path() / "sub" / "inner.kel");

    EXPECT_EQ(Utils::CollectPotentialKELFilesInDirectory(dir.Path().string(), false),
              std::vector<std::string>{Canonical(dir.Path() / "top.kel")});
    EXPECT_EQ(Sorted(Utils::CollectPotentialKELFilesInDirectory(dir.Path().string(), true)),
              Sorted({Canonical(dir.Path() / "top.kel"), Canonical(dir.Path() / "sub" / "inner.kel")}));
}

TEST(DirectoryCandidates, LinkToAFileIsListedUnderItsTargetsCanonicalPath) {
    kel_test::TempDir dir;
    fs::create_directory(dir.Path() / "store");
    fs::create_directory(dir.Path() / "scan");
    Touch(dir.Path() / "store" / "real.data");
    fs::create_symlink(dir.Path() / "store" / "real.data", dir.Path() / "scan" / "link.kel");

    const auto candidates = Utils::CollectPotentialKELFilesInDirectory((dir.Path() / "scan").string(), false);

    EXPECT_EQ(candidates, std::vector<std::string>{Canonical(dir.Path() / "store" / "real.data")});
}

TEST(DirectoryCandidates, TwoLinksToOneFileGiveItsPathTwice) {
    kel_test::TempDir dir;
    fs::create_directory(dir.Path() / "scan");
    Touch(dir.Path() / "real.data");
    fs::create_symlink(dir.Path() / "real.data", dir.Path() / "scan" / "one.kel");
    fs::create_symlink(dir.Path() / "real.data", dir.Path() / "scan" / "two.kel");

    const auto candidates = Utils::CollectPotentialKELFilesInDirectory((dir.Path() / "scan").string(), false);

    EXPECT_EQ(candidates, std::vector<std::string>(2, Canonical(dir.Path() / "real.data")));
}

TEST(DirectoryCandidates, RelativeDirectoryThroughALinkGivesCanonicalPaths) {
    kel_test::TempDir dir;
    fs::create_directory(dir.Path() / "real");
    Touch(dir.Path() / "real" / "a.kel");
    fs::create_directory_symlink(dir.Path() / "real", dir.Path() / "alias");
    WorkingDirectory cwd(dir.Path());

    const auto candidates = Utils::CollectPotentialKELFilesInDirectory("alias", false);

    EXPECT_EQ(candidates, std::vector<std::string>{Canonical(dir.Path() / "real" / "a.kel")});
    ASSERT_EQ(candidates.size(), 1U);
    EXPECT_TRUE(fs::path(candidates[0]).is_absolute());
}

TEST(DirectoryCandidates, DanglingLinkRaisesAFilesystemError) {
    kel_test::TempDir dir;
    fs::create_symlink(dir.Path() / "gone.data", dir.Path() / "broken.kel");

    EXPECT_THROW(Utils::CollectPotentialKELFilesInDirectory(dir.Path().string(), false),
                 boost::filesystem::filesystem_error);
}

TEST(DirectoryCandidates, MissingDirectoryRaisesAFilesystemError) {
    kel_test::TempDir dir;

    EXPECT_THROW(Utils::CollectPotentialKELFilesInDirectory((dir.Path() / "nope").string(), false),
                 boost::filesystem::filesystem_error);
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
    std::ofstream(dir.File("b.kel")) << "this is not a container";
    std::ofstream(dir.File("c.kel")) << "neither is this one, and it must never be opened";
    KEL::ReadKEL2File direct(dir.File("b.kel").c_str());
    const KEL::KelErrorCode expected = direct.Initialize();
    ASSERT_NE(expected, KEL::KEL_OK);
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
