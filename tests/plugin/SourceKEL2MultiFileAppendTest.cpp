#include <KEL/DataTypeStreamInfo.h>
#include <KEL/Graph.h>
#include <KEL/KelErrorCode.h>
#include <KelCommon/Logger.h>
#include <KelCommon/VarManager.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "plugin/RecordingFiles.h"
#include "sources/SourceKEL2MultiFileAppend.h"
#include "support/TestSupport.h"

namespace {

using Kel2File::SourceKEL2MultiFileAppend;

kel_test::RecordingOptions Take(const std::string& take, std::int64_t timeStampOffset) {
    kel_test::RecordingOptions options;
    options.take = take;
    options.timeStampOffset = timeStampOffset;
    return options;
}

class SequentialSourceTest : public ::testing::Test {
protected:
    KEL::KelErrorCode Open(const std::string& directory) {
        EXPECT_EQ(source_->onInitializeParams(nullptr), 0U);
        kel_test::SetParam(*source_, "KEL files dir", directory);
        return source_->onInitialize(nullptr);
    }
    KEL::KelErrorCode Open() { return Open(dir_.Path().string()); }

    void Write(const std::string& name, const std::vector<kel_test::StreamSpec>& streams, const std::string& take,
               std::int64_t timeStampOffset = 0) {
        kel_test::WriteRecording(dir_.File(name), streams, Take(take, timeStampOffset));
    }

    void ExpectClosed() {
        EXPECT_EQ(source_->GetOutputNumStreams(), 0U);
        EXPECT_EQ(source_->GetStreamInfo(), nullptr);
        EXPECT_EQ(source_->GetOutputProfile(), nullptr);
        EXPECT_EQ(kel_test::PushFrame(*source_, 0).code, 1U);
    }

    kel_test::TempDir dir_;
    std::string dirPath_ = dir_.Path().string();
    std::unique_ptr<SourceKEL2MultiFileAppend> source_{
        static_cast<SourceKEL2MultiFileAppend*>(SourceKEL2MultiFileAppendFilterCreator())};
};

TEST_F(SequentialSourceTest, FilesArePlayedInByteWisePathOrder) {
    Write("10.kel", {{1, 1}}, "10");
    Write("9.kel", {{1, 1}}, "9");
    Write("A.kel", {{1, 1}}, "A");
    Write("a.kel", {{1, 1}}, "a");
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
            EXPECT_EQ(atom->GetTimeStamp(),
                      kel_test::MakeRecordedAtom(atom->GetStreamId(), local, 1, Take("", fromB ? 10'000'000 : 0))
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

TEST_F(SequentialSourceTest, FilesWithDifferentStreamsAreRefused) {
    Write("a.kel", {{1, 2}}, "a");
    Write("b.kel", {{1, 2}, {2, 2}}, "b");
    KelCommon::ScopedLogCapture capture;

    EXPECT_EQ(Open(), KEL::KEL_ERR_INVALID);

    EXPECT_EQ(source_->GetLastErrorMessage(), "Failed to process kel files in the '" + dirPath_ + "' directory");
    EXPECT_EQ(capture.Count("All files in the directory must hold the same collection of streams"), 1U);
    ExpectClosed();
}

TEST_F(SequentialSourceTest, FilesWithDifferentProfilesAreRefused) {
    Write("a.kel", {{1, 2}}, "a");
    kel_test::RecordingOptions noMesh;
    noMesh.withoutMesh = true;
    kel_test::WriteRecording(dir_.File("b.kel"), {{1, 2}}, noMesh);
    KelCommon::ScopedLogCapture capture;

    EXPECT_EQ(Open(), KEL::KEL_ERR_INVALID);

    EXPECT_EQ(source_->GetLastErrorMessage(), "Failed to process kel files in the '" + dirPath_ + "' directory");
    EXPECT_EQ(capture.Count("All files in the directory must have the same profile"), 1U);
    ExpectClosed();
}

TEST_F(SequentialSourceTest, MissingDirectoryFailsWithCodeOne) {
    const std::string missing = dir_.File("absent");

    EXPECT_EQ(Open(missing), KEL::KEL_ERR_NOT_FOUND);
    EXPECT_EQ(source_->GetLastErrorMessage(), "Directory '" + missing + "' does not exist");
}

TEST_F(SequentialSourceTest, FileInsteadOfDirectoryFailsWithCodeOne) {
    Write("a.kel", {{1, 2}}, "a");

    EXPECT_EQ(Open(dir_.File("a.kel")), KEL::KEL_ERR_NOT_FOUND);
    EXPECT_EQ(source_->GetLastErrorMessage(), "Directory '" + dir_.File("a.kel") + "' does not exist");
}

TEST_F(SequentialSourceTest, DirectoryWithoutContainersFailsWithCodeFour) {
    std::ofstream(dir_.File("a.KEL")) << "x";
    std::filesystem::create_directory(dir_.Path() / "b.kel");
    KelCommon::ScopedLogCapture capture;

    EXPECT_EQ(Open(), KEL::KEL_ERR_INVALID);

    EXPECT_EQ(source_->GetLastErrorMessage(), "Failed to collect kel files from '" + dirPath_ + "' directory");
    EXPECT_EQ(capture.Count("Directory '" + dirPath_ + "' does not contain a sequence of files"), 1U);
}

TEST_F(SequentialSourceTest, CorruptFileFailsWithTheReadersCode) {
    Write("a.kel", {{1, 2}}, "a");
    std::ofstream(dir_.File("b.kel")) << "not a container";
    KEL::ReadKEL2File direct(dir_.File("b.kel").c_str());
    const KEL::KelErrorCode expected = direct.Initialize();
    ASSERT_NE(expected, KEL::KEL_OK);

    EXPECT_EQ(Open(), expected);
    EXPECT_EQ(source_->GetLastErrorMessage(), "Failed to collect kel files from '" + dirPath_ + "' directory");
}

TEST_F(SequentialSourceTest, FirstFileWithoutStreamsIsRefused) {
    kel_test::WriteRecording(dir_.File("a.kel"), {});
    Write("b.kel", {{1, 2}}, "b");

    EXPECT_EQ(Open(), KEL::KEL_ERR_INVALID);
    EXPECT_EQ(source_->GetLastErrorMessage(), "Failed to extract stream IDs from the first file");
    ExpectClosed();
}

TEST_F(SequentialSourceTest, FirstFileWithoutStreamInfoIsRefused) {
    kel_test::RecordingOptions options;
    options.withoutStreamInfo = true;
    kel_test::WriteRecording(dir_.File("a.kel"), {{3, 2}}, options);
    KelCommon::ScopedLogCapture capture;

    EXPECT_EQ(Open(), KEL::KEL_ERR_INVALID);
    EXPECT_EQ(source_->GetLastErrorMessage(), "Failed to extract stream info from the file holding '3' stream");
    EXPECT_EQ(capture.Count("The atom lacks stream info data layer"), 1U);
    ExpectClosed();
}

TEST_F(SequentialSourceTest, UnreadableFirstAtomOfTheFirstFileFailsProfileDetection) {
    Write("a.kel", {{4, 2}}, "a");
    Write("b.kel", {{4, 2}}, "b");
    kel_test::CorruptAtMarker(dir_.File("a.kel"), "a-4-0-MARK");
    KelCommon::ScopedLogCapture capture;

    EXPECT_EQ(Open(), KEL::KEL_ERR_INVALID);

    EXPECT_EQ(source_->GetLastErrorMessage(), "Failed to determine profile from the first file");
    EXPECT_EQ(capture.Count("There is no 'first' atom in the '4' stream of a file"), 1U);
    ExpectClosed();
}

TEST_F(SequentialSourceTest, UnreadableFirstAtomOfALaterStreamFailsLoosenerSetup) {
    Write("a.kel", {{1, 2}, {2, 2}, {3, 2}}, "a");
    kel_test::CorruptAtMarker(dir_.File("a.kel"), "a-3-0-MARK");
    KelCommon::ScopedLogCapture capture;

    EXPECT_EQ(Open(), KEL::KEL_ERR_INVALID);

    EXPECT_EQ(source_->GetLastErrorMessage(), "Failed to setup data looseners");
    EXPECT_EQ(capture.Count("There is no 'first' atom in the '3' stream, can not setup optimized data loosener"), 1U);
    ExpectClosed();
}

TEST_F(SequentialSourceTest, UnreadableFirstAtomOfTheSmallestStreamFailsStreamInfo) {
    Write("a.kel", {{2, 2}, {1, 2}}, "a");
    kel_test::CorruptAtMarker(dir_.File("a.kel"), "a-1-0-MARK");
    KelCommon::ScopedLogCapture capture;

    EXPECT_EQ(Open(), KEL::KEL_ERR_INVALID);

    EXPECT_EQ(source_->GetLastErrorMessage(), "Failed to extract stream info from the file holding '1' stream");
    EXPECT_EQ(capture.Count("The atom lacks stream info data layer"), 1U);
    ExpectClosed();
}

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
    kel_test::TempDir other;
    kel_test::WriteRecording(other.File("x.kel"), {{7, 3}, {8, 3}});
    ASSERT_EQ(Open(), 0U);

    EXPECT_EQ(source_->onDeInitialize(), 0U);
    ExpectClosed();
    ASSERT_EQ(Open(other.Path().string()), 0U);

    EXPECT_EQ(source_->GetStreamIds(), (std::vector<std::uint32_t>{7, 8}));
    EXPECT_EQ(source_->GetStreamInfo()->GetNumFrames(), 3U);
}

TEST_F(SequentialSourceTest, GraphPlaysEveryFrameOfEveryFile) {
    Write("a.kel", {{1, 3}}, "a");
    Write("b.kel", {{1, 4}}, "b");
    KEL::Graph graph;
    auto* source = graph.AddFilter(std::unique_ptr<KEL::Filter>(SourceKEL2MultiFileAppendFilterCreator()), "source");
    auto* target = static_cast<kel_test::CollectingTarget*>(
        graph.AddFilter(std::make_unique<kel_test::CollectingTarget>(), "collect"));
    ASSERT_NE(source, nullptr);
    kel_test::SetParam(*source, "KEL files dir", dirPath_);
    ASSERT_EQ(graph.Connect(source, target), 0U);
    std::string error;
    ASSERT_EQ(graph.Initialize(&error), 0U) << error;

    const auto result = graph.Run();

    ASSERT_TRUE(result.Ok()) << result.message;
    ASSERT_EQ(target->atoms.size(), 7U);
    for (std::uint32_t i = 0; i < 7; ++i) {
        EXPECT_EQ(target->atoms[i]->GetFrameNr(), i);
        EXPECT_EQ(target->atoms[i]->GetNumDataLayers(), kel_test::MakeRecordedAtom(1, 0, 1)->GetNumDataLayers())
            << "atom " << i;
    }
}

}  // namespace
