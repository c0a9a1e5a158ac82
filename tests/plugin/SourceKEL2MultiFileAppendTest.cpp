#include <KEL/DataTypeStreamInfo.h>
#include <KEL/KelErrorCode.h>
#include <KelCommon/Logger.h>
#include <KelCommon/VarManager.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "plugin/RecordingFiles.h"
#include "sources/SourceKEL2MultiFileAppend.h"
#include "support/TestSupport.h"

namespace {

using kel_test::RecordingOptions;
using kel_test::TempDir;

class SequentialSourceTest : public ::testing::Test {
protected:
    KEL::KelErrorCode Open(const std::string& directory) { return source_.Open(directory); }
    KEL::KelErrorCode Open() { return Open(dirPath_); }

    void Write(const std::string& name, const std::vector<kel_test::StreamSpec>& streams, const std::string& take,
               std::int64_t timeStampOffset = 0) {
        kel_test::WriteRecording(dir_.File(name), streams,
                                 RecordingOptions{.take = take, .timeStampOffset = timeStampOffset});
    }

    TempDir dir_;
    std::string dirPath_ = dir_.Path().string();
    kel_test::SourceUnderTest source_{SourceKEL2MultiFileAppendFilterCreator, "KEL files dir"};
};

TEST_F(SequentialSourceTest, FilesArePlayedInByteWisePathOrder) {
    for (const char* take : {"a", "A", "9", "10"}) {
        Write(std::string(take) + ".kel", {{1, 1}}, take);
    }
    ASSERT_EQ(Open(), 0U) << source_->GetLastErrorMessage();

    std::vector<std::string> order;
    for (std::uint32_t frame = 0; frame < 4; ++frame) {
        const auto result = kel_test::PushFrame(*source_, frame);
        ASSERT_EQ(result.code, 0U);
        ASSERT_EQ(result.atoms.size(), 1U);
        order.push_back(kel_test::TakeOf(*result.atoms[0]));
    }

    EXPECT_EQ(order, (std::vector<std::string>{"10", "9", "A", "a"}));
}

TEST_F(SequentialSourceTest, FramesAreNumberedContinuouslyAcrossFiles) {
    Write("a.kel", {{1, 3}, {2, 3}}, "a", 0);
    Write("b.kel", {{1, 2}, {2, 2}}, "b", 10'000'000);
    ASSERT_EQ(Open(), 0U) << source_->GetLastErrorMessage();

    EXPECT_EQ(source_->GetStreamIds(), (std::vector<std::uint32_t>{1, 2}));
    ASSERT_NE(source_->GetStreamInfo(), nullptr);
    EXPECT_EQ(source_->GetStreamInfo()->GetNumFrames(), 5U);
    for (std::uint32_t frame = 0; frame < 5; ++frame) {
        const auto result = kel_test::PushFrame(*source_, frame);
        ASSERT_EQ(result.code, 0U) << frame;
        ASSERT_EQ(result.atoms.size(), 2U);
        const bool fromB = frame >= 3;
        const std::uint32_t local = fromB ? frame - 3 : frame;
        for (std::size_t s = 0; s < 2; ++s) {
            const auto& atom = result.atoms[s];
            EXPECT_EQ(atom->GetStreamId(), s + 1);
            EXPECT_EQ(atom->GetFrameNr(), frame);
            EXPECT_EQ(atom->GetTimeStamp(), kel_test::MakeRecordedAtom(
                                                atom->GetStreamId(), local, 1,
                                                RecordingOptions{.take = "", .timeStampOffset = fromB ? 10'000'000 : 0})
                                                ->GetTimeStamp());
            EXPECT_EQ(atom->GetDataLayerByType(KEL::DataTypeStreamInfo::TheTypeGuid(), false),
                      source_->GetStreamInfo());
        }
    }
}

TEST_F(SequentialSourceTest, FrameBeyondTheLastReturnsOneAndLogsNothing) {
    Write("a.kel", {{1, 3}}, "a");
    Write("c.kel", {{1, 2}}, "c");
    ASSERT_EQ(Open(), 0U);
    KelCommon::ScopedLogCapture capture;

    const auto result = kel_test::PushFrame(*source_, 5);

    EXPECT_EQ(result.code, 1U);
    EXPECT_TRUE(result.atoms.empty());
    EXPECT_TRUE(capture.Records().empty());
}

TEST_F(SequentialSourceTest, LaterFilesAreRestoredFromTheFirstFilesReferenceAtoms) {
    Write("a.kel", {{1, 2}}, "first");
    Write("b.kel", {{1, 2}}, "second");
    ASSERT_EQ(Open(), 0U);

    const auto bFirst = kel_test::PushFrame(*source_, 2);
    const auto bLater = kel_test::PushFrame(*source_, 3);

    ASSERT_EQ(bFirst.atoms.size(), 1U);
    ASSERT_EQ(bLater.atoms.size(), 1U);
    EXPECT_EQ(kel_test::TakeOf(*bFirst.atoms[0]), "second");
    EXPECT_EQ(kel_test::TakeOf(*bLater.atoms[0]), "first");
    EXPECT_EQ(kel_test::SortedLayerKinds(*bLater.atoms[0]), kel_test::SortedLayerKinds(*bFirst.atoms[0]));
}

TEST_F(SequentialSourceTest, MissingAtomInOneStreamSuppressesTheWholeFrame) {
    Write("a.kel", {{1, 4}, {2, 4, {1}}}, "a");
    ASSERT_EQ(Open(), 0U);
    KelCommon::ScopedLogCapture capture;

    const auto result = kel_test::PushFrame(*source_, 1);

    EXPECT_EQ(result.code, 1U);
    EXPECT_TRUE(result.atoms.empty());
    EXPECT_EQ(capture.Count("Stream '2' lacks an atom with frame number '1'"), 1U);
}

class SequentialSourceInitFailureTest : public ::testing::TestWithParam<kel_test::InitFailureCase> {};

TEST_P(SequentialSourceInitFailureTest, ReportsTheErrorAndLeavesTheSourceClosed) {
    kel_test::CheckInitFailure(SourceKEL2MultiFileAppendFilterCreator, "KEL files dir", GetParam());
}

INSTANTIATE_TEST_SUITE_P(Directories, SequentialSourceInitFailureTest,
                         ::testing::ValuesIn(kel_test::DirectoryOpenFailureCases()), kel_test::CaseName());

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
    Write("a.kel", {{1, 2}}, "a");
    std::filesystem::create_symlink(dir_.File("gone.data"), dir_.File("b.kel"));
    ASSERT_EQ(source_->onInitializeParams(nullptr), 0U);
    kel_test::SetParam(*source_, "KEL files dir", dirPath_);

    EXPECT_THROW(source_->onInitialize(nullptr), std::exception);
    EXPECT_EQ(source_->Initialize(nullptr), KEL::KEL_ERR_EXCEPTION);
    EXPECT_EQ(source_->GetFilterState(), KEL::FILTER_STATE_FAILED);
}

TEST_F(SequentialSourceTest, DefaultDirectoryIsUnderTheRootValue) {
    ASSERT_EQ(source_->onInitializeParams(nullptr), 0U);
    const auto param = source_->FindParam("KEL files dir");

    ASSERT_NE(param, nullptr);
    EXPECT_EQ(param->GetFlags(), 1U);
    EXPECT_EQ(param->GetType(), KEL::FilterParamType::DirPath);
    EXPECT_EQ(param->GetValueAsString(), KelCommon::VarManager::getInstance().getRootValue().str() + "/kel_files");
    ASSERT_EQ(source_->onInitializeParams(nullptr), 0U);
    EXPECT_EQ(source_->FindParam("KEL files dir"), param);
}

TEST_F(SequentialSourceTest, ReinitialisesWithAnotherDirectoryAfterDeInitialize) {
    Write("a.kel", {{1, 2}}, "a");
    TempDir other;
    kel_test::WriteRecording(other.File("x.kel"), {{7, 3}, {8, 3}});
    ASSERT_EQ(Open(), 0U);

    EXPECT_EQ(source_->onDeInitialize(), 0U);
    source_.ExpectClosed();
    ASSERT_EQ(Open(other.Path().string()), 0U);

    EXPECT_EQ(source_->GetStreamIds(), (std::vector<std::uint32_t>{7, 8}));
    EXPECT_EQ(source_->GetStreamInfo()->GetNumFrames(), 3U);
}

TEST_F(SequentialSourceTest, GraphPlaysEveryFrameOfEveryFile) {
    Write("a.kel", {{1, 3}}, "a");
    Write("b.kel", {{1, 4}}, "b");

    const auto played = kel_test::PlayThroughGraph(SourceKEL2MultiFileAppendFilterCreator, "KEL files dir", dirPath_);

    ASSERT_EQ(played.atoms.size(), 7U);
    for (std::uint32_t i = 0; i < 7; ++i) {
        EXPECT_EQ(played.atoms[i]->GetFrameNr(), i);
        EXPECT_EQ(played.atoms[i]->GetNumDataLayers(), kel_test::MakeRecordedAtom(1, 0, 1)->GetNumDataLayers())
            << "atom " << i;
    }
}

}  // namespace
