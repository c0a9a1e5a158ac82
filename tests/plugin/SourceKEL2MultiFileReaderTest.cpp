#include <KEL/DataTypeStreamInfo.h>
#include <KEL/Graph.h>
#include <KEL/KelErrorCode.h>
#include <KelCommon/Logger.h>
#include <KelCommon/VarManager.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "plugin/RecordingFiles.h"
#include "sources/SourceKEL2MultiFileReader.h"
#include "support/TestSupport.h"

namespace {

using Kel2File::SourceKEL2MultiFileReader;

class MergedSourceTest : public ::testing::Test {
protected:
    KEL::KelErrorCode Open(const std::string& directory) {
        EXPECT_EQ(source_->onInitializeParams(nullptr), 0U);
        kel_test::SetParam(*source_, "KEL files dir", directory);
        return source_->onInitialize(nullptr);
    }
    KEL::KelErrorCode Open() { return Open(dirPath_); }

    void Write(const std::string& name, const std::vector<kel_test::StreamSpec>& streams, const std::string& take) {
        kel_test::RecordingOptions options;
        options.take = take;
        kel_test::WriteRecording(dir_.File(name), streams, options);
    }

    void ExpectClosed() {
        EXPECT_EQ(source_->GetOutputNumStreams(), 0U);
        EXPECT_EQ(source_->GetStreamInfo(), nullptr);
        EXPECT_EQ(source_->GetOutputProfile(), nullptr);
        EXPECT_EQ(kel_test::PushFrame(*source_, 0).code, 1U);
    }

    kel_test::TempDir dir_;
    std::string dirPath_ = dir_.Path().string();
    std::unique_ptr<SourceKEL2MultiFileReader> source_{
        static_cast<SourceKEL2MultiFileReader*>(SourceKEL2MultiFileReaderFilterCreator())};
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

TEST_F(ThreeFilesTest, StreamsOfAllFilesAreOutputInAscendingOrder) {
    EXPECT_EQ(source_->GetStreamIds(), (std::vector<std::uint32_t>{1, 2, 3, 4}));
    EXPECT_EQ(source_->GetOutputNumStreams(), 4U);
}

TEST_F(ThreeFilesTest, FrameCountIsThatOfTheShortestFile) {
    ASSERT_NE(source_->GetStreamInfo(), nullptr);
    EXPECT_EQ(source_->GetStreamInfo()->GetNumFrames(), 8U);
    EXPECT_EQ(source_->GetStreamInfo()->GetName(), "camera1");
}

TEST_F(ThreeFilesTest, EachFrameHoldsOneAtomPerStreamWithItsStoredNumber) {
    for (std::uint32_t frame = 0; frame < 8; ++frame) {
        const auto result = kel_test::PushFrame(*source_, frame);
        ASSERT_EQ(result.code, 0U) << frame;
        ASSERT_EQ(result.atoms.size(), 4U);
        for (std::size_t i = 0; i < 4; ++i) {
            EXPECT_EQ(result.atoms[i]->GetStreamId(), i + 1);
            EXPECT_EQ(result.atoms[i]->GetFrameNr(), frame);
            EXPECT_EQ(result.atoms[i]->GetDataLayerByType(KEL::DataTypeStreamInfo::TheTypeGuid(), false),
                      source_->GetStreamInfo());
        }
    }
}

TEST_F(ThreeFilesTest, EachStreamIsRestoredFromItsOwnFile) {
    const auto result = kel_test::PushFrame(*source_, 5);

    ASSERT_EQ(result.atoms.size(), 4U);
    EXPECT_EQ(kel_test::TakeOf(*result.atoms[0]), "one");
    EXPECT_EQ(kel_test::TakeOf(*result.atoms[1]), "twothree");
    EXPECT_EQ(kel_test::TakeOf(*result.atoms[2]), "twothree");
    EXPECT_EQ(kel_test::TakeOf(*result.atoms[3]), "four");
    for (const auto& atom : result.atoms) {
        EXPECT_EQ(atom->GetNumDataLayers(), kel_test::MakeRecordedAtom(1, 0, 1)->GetNumDataLayers());
    }
}

TEST_F(ThreeFilesTest, FrameBeyondTheShortestFileIsNotPushed) {
    KelCommon::ScopedLogCapture capture;

    const auto result = kel_test::PushFrame(*source_, 8);

    EXPECT_EQ(result.code, 1U);
    EXPECT_TRUE(result.atoms.empty());
    EXPECT_EQ(capture.Count("Stream '2' lacks an atom with frame number '8'"), 1U);
}

TEST_F(MergedSourceTest, TwoFilesHoldingOneStreamAreRefused) {
    Write("a.kel", {{1, 3}, {2, 3}}, "a");
    Write("b.kel", {{2, 3}}, "b");
    KelCommon::ScopedLogCapture capture;

    EXPECT_EQ(Open(), KEL::KEL_ERR_INVALID);

    EXPECT_EQ(source_->GetLastErrorMessage(), "Failed to process kel files in the '" + dirPath_ + "' directory");
    EXPECT_EQ(capture.Count("Multiple files of the directory hold the same stream"), 1U);
    ExpectClosed();
}

TEST_F(MergedSourceTest, FilesWithoutStreamsAreRefused) {
    kel_test::WriteRecording(dir_.File("a.kel"), {});
    kel_test::WriteRecording(dir_.File("b.kel"), {});
    KelCommon::ScopedLogCapture capture;

    EXPECT_EQ(Open(), KEL::KEL_ERR_INVALID);

    EXPECT_EQ(source_->GetLastErrorMessage(), "Failed to process kel files in the '" + dirPath_ + "' directory");
    EXPECT_EQ(capture.Count("There are no streams held by any of the files of the directory"), 1U);
    ExpectClosed();
}

TEST_F(MergedSourceTest, FileWithoutStreamsBesideOthersIsIgnored) {
    kel_test::WriteRecording(dir_.File("empty.kel"), {});
    Write("a.kel", {{1, 3}}, "a");

    ASSERT_EQ(Open(), 0U) << source_->GetLastErrorMessage();

    EXPECT_EQ(source_->GetStreamIds(), (std::vector<std::uint32_t>{1}));
    EXPECT_EQ(source_->GetStreamInfo()->GetNumFrames(), 3U);
}

TEST_F(MergedSourceTest, StreamWithAnotherProfileIsRefused) {
    Write("a.kel", {{1, 3}}, "a");
    kel_test::RecordingOptions noMesh;
    noMesh.withoutMesh = true;
    kel_test::WriteRecording(dir_.File("b.kel"), {{2, 3}}, noMesh);
    KelCommon::ScopedLogCapture capture;

    EXPECT_EQ(Open(), KEL::KEL_ERR_INVALID);

    EXPECT_EQ(source_->GetLastErrorMessage(), "All streams in all files must have the same profile");
    EXPECT_EQ(capture.Count("Profile of stream '2' differs from the profile of the filter"), 1U);
    ExpectClosed();
}

TEST_F(MergedSourceTest, SmallestStreamWithoutStreamInfoIsRefused) {
    kel_test::RecordingOptions options;
    options.withoutStreamInfo = true;
    kel_test::WriteRecording(dir_.File("a.kel"), {{3, 2}}, options);
    Write("b.kel", {{5, 2}}, "b");

    EXPECT_EQ(Open(), KEL::KEL_ERR_INVALID);

    EXPECT_EQ(source_->GetLastErrorMessage(), "Failed to extract stream info from the file holding '3' stream");
    ExpectClosed();
}

TEST_F(MergedSourceTest, UnreadableFirstAtomOfTheSmallestStreamIsRefused) {
    Write("a.kel", {{3, 2}}, "a");
    Write("b.kel", {{5, 2}}, "b");
    kel_test::CorruptAtMarker(dir_.File("a.kel"), "a-3-0-MARK");

    EXPECT_EQ(Open(), KEL::KEL_ERR_INVALID);

    EXPECT_EQ(source_->GetLastErrorMessage(), "There is no 'first' atom in the file holding '3' stream");
    ExpectClosed();
}

TEST_F(MergedSourceTest, UnreadableFirstAtomOfAnotherStreamFailsTheProfileCheck) {
    Write("a.kel", {{3, 2}}, "a");
    Write("b.kel", {{5, 2}}, "b");
    kel_test::CorruptAtMarker(dir_.File("b.kel"), "b-5-0-MARK");
    KelCommon::ScopedLogCapture capture;

    EXPECT_EQ(Open(), KEL::KEL_ERR_INVALID);

    EXPECT_EQ(source_->GetLastErrorMessage(), "All streams in all files must have the same profile");
    EXPECT_EQ(capture.Count("There is no 'first' atom in the file holding '5' stream"), 1U);
    ExpectClosed();
}

TEST_F(MergedSourceTest, CorruptFileFailsWithTheReadersCode) {
    Write("a.kel", {{1, 2}}, "a");
    std::ofstream(dir_.File("b.kel")) << "not a container";
    KEL::ReadKEL2File direct(dir_.File("b.kel").c_str());
    const KEL::KelErrorCode expected = direct.Initialize();
    ASSERT_NE(expected, KEL::KEL_OK);

    EXPECT_EQ(Open(), expected);
    EXPECT_EQ(source_->GetLastErrorMessage(), "Failed to collect kel files from '" + dirPath_ + "' directory");
}

TEST_F(MergedSourceTest, MissingDirectoryFailsWithCodeOne) {
    const std::string missing = dir_.File("absent");

    EXPECT_EQ(Open(missing), KEL::KEL_ERR_NOT_FOUND);
    EXPECT_EQ(source_->GetLastErrorMessage(), "Directory '" + missing + "' does not exist");
}

TEST_F(MergedSourceTest, DirectoryWithoutContainersFailsWithCodeFour) {
    std::ofstream(dir_.File("notes.txt")) << "x";
    KelCommon::ScopedLogCapture capture;

    EXPECT_EQ(Open(), KEL::KEL_ERR_INVALID);

    EXPECT_EQ(source_->GetLastErrorMessage(), "Failed to collect kel files from '" + dirPath_ + "' directory");
    EXPECT_EQ(capture.Count("Directory '" + dirPath_ + "' does not contain a sequence of files"), 1U);
}

TEST_F(MergedSourceTest, SingleFileWorksLikeAFileSourceOverAllItsStreams) {
    Write("only.kel", {{6, 4}, {2, 5}}, "only");
    KEL::Graph graph;
    auto* source = graph.AddFilter(std::unique_ptr<KEL::Filter>(SourceKEL2MultiFileReaderFilterCreator()), "source");
    auto* target = static_cast<kel_test::CollectingTarget*>(
        graph.AddFilter(std::make_unique<kel_test::CollectingTarget>(), "collect"));
    ASSERT_NE(source, nullptr);
    kel_test::SetParam(*source, "KEL files dir", dirPath_);
    ASSERT_EQ(graph.Connect(source, target), 0U);
    std::string error;
    ASSERT_EQ(graph.Initialize(&error), 0U) << error;

    const auto result = graph.Run();

    ASSERT_TRUE(result.Ok()) << result.message;
    ASSERT_EQ(target->atoms.size(), 8U);
    for (std::size_t i = 0; i < target->atoms.size(); ++i) {
        EXPECT_EQ(target->atoms[i]->GetStreamId(), i % 2 == 0 ? 2 : 6);
        EXPECT_EQ(target->atoms[i]->GetFrameNr(), i / 2);
        EXPECT_EQ(kel_test::TakeOf(*target->atoms[i]), "only");
    }
}

TEST_F(MergedSourceTest, ReinitialisesAfterDeInitialize) {
    Write("a.kel", {{1, 3}}, "a");
    Write("b.kel", {{2, 3}}, "b");
    ASSERT_EQ(Open(), 0U);

    EXPECT_EQ(source_->onDeInitialize(), 0U);
    ExpectClosed();
    ASSERT_EQ(Open(), 0U) << source_->GetLastErrorMessage();

    EXPECT_EQ(source_->GetStreamIds(), (std::vector<std::uint32_t>{1, 2}));
}

}  // namespace
