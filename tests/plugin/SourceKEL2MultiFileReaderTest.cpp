#include <KEL/DataTypeStreamInfo.h>
#include <KEL/KelErrorCode.h>
#include <KelCommon/Logger.h>
#include <gtest/gtest.h>

#include "plugin/RecordingFiles.h"
#include "sources/SourceKEL2MultiFileReader.h"
#include "support/TestSupport.h"

namespace {

using kel_test::RecordingOptions;

class MergedSourceTest : public ::testing::Test {
protected:
    KEL::KelErrorCode Open() { return source_.Open(dirPath_); }

    void Write(const std::string& name, const std::vector<kel_test::StreamSpec>& streams, const std::string& take) {
        kel_test::WriteRecording(dir_.File(name), streams, RecordingOptions{.take = take});
    }

    kel_test::TempDir dir_;
    std::string dirPath_ = dir_.Path().string();
    kel_test::SourceUnderTest source_{SourceKEL2MultiFileReaderFilterCreator, "KEL files dir"};
};

class ThreeFilesTest : public MergedSourceTest {
protected:
    void SetUp() override {
        Write("one.kel", {{1, 10}}, "one");
        Write("twothree.kel", {{3, 8}, {2, 8}}, "twothree");
        Write("four.kel", {{4, 12}}, "four");
        ASSERT_EQ(Open(), 0U) << source_->GetLastErrorMessage();
    }
};

TEST_F(ThreeFilesTest, StreamsAreOutputAscendingWithTheShortestFilesFrameCount) {
    EXPECT_EQ(source_->GetStreamIds(), (std::vector<std::uint32_t>{1, 2, 3, 4}));
    EXPECT_EQ(source_->GetOutputNumStreams(), 4U);
    ASSERT_NE(source_->GetStreamInfo(), nullptr);
    EXPECT_EQ(source_->GetStreamInfo()->GetNumFrames(), 8U);
    EXPECT_EQ(source_->GetStreamInfo()->GetName(), "camera1");
}

TEST_F(ThreeFilesTest, EachFrameHoldsOneAtomPerStreamRestoredFromItsOwnFile) {
    const std::vector<std::string> takes = {"one", "twothree", "twothree", "four"};
    for (std::uint32_t frame = 0; frame < 8; ++frame) {
        const auto result = kel_test::PushFrame(*source_, frame);
        ASSERT_EQ(result.code, 0U) << frame;
        ASSERT_EQ(result.atoms.size(), 4U);
        for (std::size_t i = 0; i < 4; ++i) {
            const auto& atom = result.atoms[i];
            EXPECT_EQ(atom->GetStreamId(), i + 1);
            EXPECT_EQ(atom->GetFrameNr(), frame);
            EXPECT_EQ(atom->GetDataLayerByType(KEL::DataTypeStreamInfo::TheTypeGuid(), false),
                      source_->GetStreamInfo());
            EXPECT_EQ(kel_test::TakeOf(*atom), takes[i]);
            EXPECT_EQ(atom->GetNumDataLayers(), kel_test::MakeRecordedAtom(1, 0, 1)->GetNumDataLayers());
        }
    }
}

TEST_F(ThreeFilesTest, FrameBeyondTheShortestFileIsNotPushed) {
    KelCommon::ScopedLogCapture capture;

    const auto result = kel_test::PushFrame(*source_, 8);

    EXPECT_EQ(result.code, 1U);
    EXPECT_TRUE(result.atoms.empty());
    EXPECT_EQ(capture.Count("Stream '2' lacks an atom with frame number '8'"), 1U);
}

class MergedSourceInitFailureTest : public ::testing::TestWithParam<kel_test::InitFailureCase> {};

TEST_P(MergedSourceInitFailureTest, ReportsTheErrorAndLeavesTheSourceClosed) {
    kel_test::CheckInitFailure(SourceKEL2MultiFileReaderFilterCreator, "KEL files dir", GetParam());
}

INSTANTIATE_TEST_SUITE_P(Directories, MergedSourceInitFailureTest,
                         ::testing::ValuesIn(kel_test::DirectoryOpenFailureCases()), kel_test::CaseName());

using kel_test::WriteFiles;
const std::string kProcessFailed = "Failed to process kel files in the '%s' directory";
const std::string kProfilesDiffer = "All streams in all files must have the same profile";
constexpr KEL::KelErrorCode kInvalid = KEL::KEL_ERR_INVALID;

INSTANTIATE_TEST_SUITE_P(
    Files, MergedSourceInitFailureTest,
    ::testing::Values(
        kel_test::InitFailureCase{"TwoFilesHoldingOneStreamAreRefused",
                                  WriteFiles({{"a.kel", {{1, 3}, {2, 3}}}, {"b.kel", {{2, 3}}}}), kInvalid,
                                  kProcessFailed, "Multiple files of the directory hold the same stream"},
        kel_test::InitFailureCase{"FilesWithoutStreamsAreRefused", WriteFiles({{"a.kel", {}}, {"b.kel", {}}}), kInvalid,
                                  kProcessFailed, "There are no streams held by any of the files of the directory"},
        kel_test::InitFailureCase{"StreamWithAnotherProfileIsRefused",
                                  WriteFiles({{"a.kel", {{1, 3}}}, {"b.kel", {{2, 3}}, {.withoutMesh = true}}}),
                                  kInvalid, kProfilesDiffer,
                                  "Profile of stream '2' differs from the profile of the filter"},
        kel_test::InitFailureCase{"SmallestStreamWithoutStreamInfoIsRefused",
                                  WriteFiles({{"a.kel", {{3, 2}}, {.withoutStreamInfo = true}}, {"b.kel", {{5, 2}}}}),
                                  kInvalid, "Failed to extract stream info from the file holding '3' stream",
                                  "The atom lacks stream info data layer"},
        kel_test::InitFailureCase{"UnreadableFirstAtomOfTheSmallestStreamIsRefused",
                                  WriteFiles({{"a.kel", {{3, 2}}}, {"b.kel", {{5, 2}}}}, {{"a.kel", 3}}), kInvalid,
                                  "There is no 'first' atom in the file holding '3' stream"},
        kel_test::InitFailureCase{"UnreadableFirstAtomOfAnotherStreamFailsTheProfileCheck",
                                  WriteFiles({{"a.kel", {{3, 2}}}, {"b.kel", {{5, 2}}}}, {{"b.kel", 5}}), kInvalid,
                                  kProfilesDiffer, "There is no 'first' atom in the file holding '5' stream"}),
    kel_test::CaseName());

TEST_F(MergedSourceTest, FileWithoutStreamsBesideOthersIsIgnored) {
    kel_test::WriteRecording(dir_.File("empty.kel"), {});
    Write("a.kel", {{1, 3}}, "a");

    ASSERT_EQ(Open(), 0U) << source_->GetLastErrorMessage();

    EXPECT_EQ(source_->GetStreamIds(), (std::vector<std::uint32_t>{1}));
    EXPECT_EQ(source_->GetStreamInfo()->GetNumFrames(), 3U);
}

TEST_F(MergedSourceTest, SingleFileWorksLikeAFileSourceOverAllItsStreams) {
    Write("only.kel", {{6, 4}, {2, 5}}, "only");

    const auto played = kel_test::PlayThroughGraph(SourceKEL2MultiFileReaderFilterCreator, "KEL files dir", dirPath_);

    ASSERT_EQ(played.atoms.size(), 8U);
    for (std::size_t i = 0; i < played.atoms.size(); ++i) {
        EXPECT_EQ(played.atoms[i]->GetStreamId(), i % 2 == 0 ? 2 : 6);
        EXPECT_EQ(played.atoms[i]->GetFrameNr(), i / 2);
        EXPECT_EQ(kel_test::TakeOf(*played.atoms[i]), "only");
    }
}

TEST_F(MergedSourceTest, ReinitialisesAfterDeInitialize) {
    Write("a.kel", {{1, 3}}, "a");
    Write("b.kel", {{2, 3}}, "b");
    ASSERT_EQ(Open(), 0U);

    EXPECT_EQ(source_->onDeInitialize(), 0U);
    source_.ExpectClosed();
    ASSERT_EQ(Open(), 0U) << source_->GetLastErrorMessage();

    EXPECT_EQ(source_->GetStreamIds(), (std::vector<std::uint32_t>{1, 2}));
}

}  // namespace
