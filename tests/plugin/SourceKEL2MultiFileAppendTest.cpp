#include <KEL/DataTypeStreamInfo.h>
#include <KEL/KelErrorCode.h>
#include <KelCommon/Logger.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <random>

#include "plugin/RecordingFiles.h"
#include "sources/SourceKEL2MultiFileAppend.h"
#include "support/TestSupport.h"

namespace {

using kel_test::RecordingOptions;
using kel_test::TempDir;

constexpr auto kCreator = &SourceKEL2MultiFileAppendFilterCreator;

class SequentialSourceTest : public ::testing::Test {
protected:
    KEL::KelErrorCode Open(const std::string& directory) { return source_.Open(directory); }
    KEL::KelErrorCode Open() { return Open(dirPath_); }

    TempDir dir_;
    std::string dirPath_ = dir_.Path().string();
    kel_test::SourceUnderTest source_{kCreator, "KEL files dir"};
};

// Generated directories of files with the same streams and different
// lengths: the source plays the files one after the other in byte-wise path
// order, numbering frames on across files, streams in ascending order. Each
// file's first atoms keep their own stream-level layers; every later atom
// gets those of the first file.
TEST(SequentialSource, PlaysTheFilesInPathOrderWithContinuingFrameNumbers) {
    for (std::uint32_t seed = 0; seed < 6; ++seed) {
        SCOPED_TRACE(seed);
        std::mt19937 random(seed);
        TempDir dir;
        std::vector<std::string> names = {"a", "A", "9", "10", "b-2", "b_1", "b"};
        std::shuffle(names.begin(), names.end(), random);
        names.resize(1 + random() % 4);
        // Keyed by file name: all paths share the directory, so this is path order.
        std::map<std::string, std::pair<std::uint32_t, RecordingOptions>> files;
        for (std::size_t f = 0; f < names.size(); ++f) {
            const std::uint32_t frames = 1 + random() % 4;
            const RecordingOptions options{.take = names[f], .timeStampOffset = 10'000'000LL * static_cast<int>(f)};
            kel_test::WriteRecording(dir.File(names[f] + ".kel"), {{7, frames}, {2, frames}}, options);
            files[names[f] + ".kel"] = {frames, options};
        }
        std::vector<std::shared_ptr<KEL::Atom>> expected;
        for (const auto& [name, file] : files) {
            for (std::uint32_t local = 0; local < file.first; ++local) {
                for (const std::uint16_t stream : {2, 7}) {
                    RecordingOptions options = file.second;
                    options.take = local == 0 ? options.take : files.begin()->second.second.take;
                    expected.push_back(kel_test::MakeRecordedAtom(stream, local, file.first, options));
                    expected.back()->SetFrameNr(static_cast<std::uint32_t>(expected.size() - 1) / 2);
                }
            }
        }

        const auto played = kel_test::PlayThroughGraph(kCreator, "KEL files dir", dir.Path().string());

        ASSERT_NE(played.streamInfo, nullptr);
        EXPECT_EQ(played.streamInfo->GetNumFrames(), expected.size() / 2);
        ASSERT_EQ(played.atoms.size(), expected.size());
        for (std::size_t i = 0; i < expected.size(); ++i) {
            kel_test::ExpectPlayed(*played.atoms[i], *expected[i], played.streamInfo);
        }
    }
}

TEST_F(SequentialSourceTest, FrameBeyondTheLastReturnsOneAndLogsNothing) {
    kel_test::WriteRecording(dir_.File("a.kel"), {{1, 3}});
    kel_test::WriteRecording(dir_.File("c.kel"), {{1, 2}});
    ASSERT_EQ(Open(), 0U);
    KelCommon::ScopedLogCapture capture;

    const auto result = kel_test::PushFrame(*source_, 5);

    EXPECT_EQ(result.code, 1U);
    EXPECT_TRUE(result.atoms.empty());
    EXPECT_TRUE(capture.Records().empty());
}

class SequentialSourceInitFailureTest : public ::testing::TestWithParam<kel_test::InitFailureCase> {};

TEST_P(SequentialSourceInitFailureTest, ReportsTheErrorAndLeavesTheSourceClosed) {
    kel_test::CheckInitFailure(kCreator, "KEL files dir", GetParam());
}

using kel_test::WriteFiles;
const std::string kProcessFailed = "Failed to process kel files in the '%s' directory";
constexpr KEL::KelErrorCode kInvalid = KEL::KEL_ERR_INVALID;

INSTANTIATE_TEST_SUITE_P(
    Files, SequentialSourceInitFailureTest,
    ::testing::Values(
        kel_test::InitFailureCase{
            "FilesWithDifferentStreamsAreRefused", WriteFiles({{"a.kel", {{1, 2}}}, {"b.kel", {{1, 2}, {2, 2}}}}),
            kInvalid, kProcessFailed, "All files in the directory must hold the same collection of streams"},
        kel_test::InitFailureCase{"FilesWithDifferentProfilesAreRefused",
                                  WriteFiles({{"a.kel", {{1, 2}}}, {"b.kel", {{1, 2}}, {.withoutMesh = true}}}),
                                  kInvalid, kProcessFailed, "All files in the directory must have the same profile"},
        kel_test::InitFailureCase{"FirstFileWithoutStreamsIsRefused", WriteFiles({{"a.kel", {}}, {"b.kel", {{1, 2}}}}),
                                  kInvalid, "Failed to extract stream IDs from the first file"},
        kel_test::InitFailureCase{"FirstFileWithoutStreamInfoIsRefused",
                                  WriteFiles({{"a.kel", {{3, 2}}, {.withoutStreamInfo = true}}}), kInvalid,
                                  "Failed to extract stream info from the file holding '3' stream",
                                  "The atom lacks stream info data layer"},
        kel_test::InitFailureCase{"UnreadableFirstAtomOfTheFirstFileFailsProfileDetection",
                                  WriteFiles({{"a.kel", {{4, 2}}}, {"b.kel", {{4, 2}}}}, {{"a.kel", 4}}), kInvalid,
                                  "Failed to determine profile from the first file",
                                  "There is no 'first' atom in the '4' stream of a file"},
        kel_test::InitFailureCase{"UnreadableFirstAtomOfALaterStreamFailsLoosenerSetup",
                                  WriteFiles({{"a.kel", {{1, 2}, {2, 2}, {3, 2}}}}, {{"a.kel", 3}}), kInvalid,
                                  "Failed to setup data looseners",
                                  "There is no 'first' atom in the '3' stream, can not setup optimized data loosener"},
        kel_test::InitFailureCase{"UnreadableFirstAtomOfTheSmallestStreamFailsStreamInfo",
                                  WriteFiles({{"a.kel", {{2, 2}, {1, 2}}}}, {{"a.kel", 1}}), kInvalid,
                                  "Failed to extract stream info from the file holding '1' stream",
                                  "The atom lacks stream info data layer"}),
    kel_test::CaseName());

TEST_F(SequentialSourceTest, DanglingLinkEscapesAsAFilesystemErrorThatTheHostReports) {
    kel_test::WriteRecording(dir_.File("a.kel"), {{1, 2}});
    std::filesystem::create_symlink(dir_.File("gone.data"), dir_.File("b.kel"));
    ASSERT_EQ(source_->onInitializeParams(nullptr), 0U);
    kel_test::SetParam(*source_, "KEL files dir", dirPath_);

    EXPECT_THROW(source_->onInitialize(nullptr), std::exception);
    EXPECT_EQ(source_->Initialize(nullptr), KEL::KEL_ERR_EXCEPTION);
    EXPECT_EQ(source_->GetFilterState(), KEL::FILTER_STATE_FAILED);
}

TEST_F(SequentialSourceTest, ReinitialisesWithAnotherDirectoryAfterDeInitialize) {
    kel_test::WriteRecording(dir_.File("a.kel"), {{1, 2}});
    TempDir other;
    kel_test::WriteRecording(other.File("x.kel"), {{7, 3}, {8, 3}});
    ASSERT_EQ(Open(), 0U);

    EXPECT_EQ(source_->onDeInitialize(), 0U);
    source_.ExpectClosed();
    ASSERT_EQ(Open(other.Path().string()), 0U);

    EXPECT_EQ(source_->GetStreamIds(), (std::vector<std::uint32_t>{7, 8}));
    EXPECT_EQ(source_->GetStreamInfo()->GetNumFrames(), 3U);
}

}  // namespace
