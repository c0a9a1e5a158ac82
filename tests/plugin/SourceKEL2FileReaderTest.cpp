#include <KEL/DataTypeStaticInfo.h>
#include <KEL/DataTypeStreamInfo.h>
#include <KEL/FilterFactory.h>
#include <KEL/Graph.h>
#include <KEL/KelErrorCode.h>
#include <KelCommon/Logger.h>
#include <KelCommon/VarManager.h>
#include <gtest/gtest.h>

#include <fstream>

#include "plugin/RecordingFiles.h"
#include "sources/SourceKEL2FileReader.h"
#include "support/TestSupport.h"

namespace {

using Kel2File::SourceKEL2FileReader;

class SingleFileSourceTest : public ::testing::Test {
protected:
    KEL::KelErrorCode Open(const std::string& path, const std::string& included = "") {
        EXPECT_EQ(source_->onInitializeParams(nullptr), 0U);
        kel_test::SetParam(*source_, "KEL File Path", path);
        kel_test::SetParam(*source_, "Included streams", included);
        return source_->onInitialize(nullptr);
    }

    std::vector<std::uint32_t> OpenStreams(const std::string& included) {
        EXPECT_EQ(Open(file_, included), 0U) << source_->GetLastErrorMessage();
        return source_->GetStreamIds();
    }

    void ExpectClosed() {
        EXPECT_EQ(source_->GetOutputNumStreams(), 0U);
        EXPECT_TRUE(source_->GetStreamIds().empty());
        EXPECT_EQ(source_->GetStreamInfo(), nullptr);
        EXPECT_EQ(source_->GetOutputProfile(), nullptr);
        EXPECT_EQ(kel_test::PushFrame(*source_, 0).code, 1U);
    }

    kel_test::TempDir dir_;
    std::string file_ = dir_.File("rec.kel");
    std::unique_ptr<SourceKEL2FileReader> source_{
        static_cast<SourceKEL2FileReader*>(SourceKEL2FileReaderFilterCreator())};
};

class IncludedStreamsTest : public SingleFileSourceTest {
protected:
    void SetUp() override { kel_test::WriteRecording(file_, {{0, 3}, {1, 3}, {2, 3}, {3, 3}}); }
    KelCommon::ScopedLogCapture capture_;
};

TEST_F(IncludedStreamsTest, ListedStreamsAreIncludedInFileOrder) {
    EXPECT_EQ(OpenStreams("3, 1"), (std::vector<std::uint32_t>{1, 3}));
    EXPECT_EQ(source_->GetOutputNumStreams(), 2U);
}

TEST_F(IncludedStreamsTest, PieceThatIsNotANumberIsLoggedAndSkipped) {
    EXPECT_EQ(OpenStreams("x,2"), (std::vector<std::uint32_t>{2}));
    EXPECT_EQ(capture_.Count("Failed to parse 'included stream Id' from string 'x', skipping"), 1U);
    EXPECT_EQ(capture_.CountContaining("Failed to parse"), 1U);
}

TEST_F(IncludedStreamsTest, EmptyPieceBetweenCommasIsLoggedOnce) {
    EXPECT_EQ(OpenStreams("1,,2"), (std::vector<std::uint32_t>{1, 2}));
    EXPECT_EQ(capture_.Count("Failed to parse 'included stream Id' from string '', skipping"), 1U);
    EXPECT_EQ(capture_.CountContaining("Failed to parse"), 1U);
}

TEST_F(IncludedStreamsTest, NumberFollowedByTextCountsAsTheNumber) {
    EXPECT_EQ(OpenStreams("2abc"), (std::vector<std::uint32_t>{2}));
    EXPECT_EQ(capture_.CountContaining("Failed to parse"), 0U);
}

TEST_F(IncludedStreamsTest, NumberOutsideIntRangeIsSkipped) {
    EXPECT_EQ(OpenStreams("99999999999,0"), (std::vector<std::uint32_t>{0}));
    EXPECT_EQ(capture_.Count("Failed to parse 'included stream Id' from string '99999999999', skipping"), 1U);
}

TEST_F(IncludedStreamsTest, StreamIdKeepsTheLowSixteenBits) {
    EXPECT_EQ(OpenStreams("65537"), (std::vector<std::uint32_t>{1}));
}

TEST_F(IncludedStreamsTest, SurroundingWhiteSpaceIsTrimmed) {
    EXPECT_EQ(OpenStreams("  2,3  "), (std::vector<std::uint32_t>{2, 3}));
    EXPECT_EQ(capture_.CountContaining("Failed to parse"), 0U);
}

TEST_F(IncludedStreamsTest, VariablesAreExpanded) {
    KelCommon::VarManager::getInstance().setVar("KEL2FILE_TEST_STREAMS", "0,2");

    EXPECT_EQ(OpenStreams("${KEL2FILE_TEST_STREAMS}"), (std::vector<std::uint32_t>{0, 2}));

    KelCommon::VarManager::getInstance().unsetVar("KEL2FILE_TEST_STREAMS");
}

TEST_F(IncludedStreamsTest, NoValidIdIncludesEveryStream) {
    EXPECT_EQ(OpenStreams("x"), (std::vector<std::uint32_t>{0, 1, 2, 3}));
    EXPECT_EQ(capture_.Count("All file streams will be included"), 1U);
}

TEST_F(IncludedStreamsTest, EmptyValueIncludesEveryStream) {
    EXPECT_EQ(OpenStreams(""), (std::vector<std::uint32_t>{0, 1, 2, 3}));
    // An empty text is one empty piece, reported like any other.
    EXPECT_EQ(capture_.Count("Failed to parse 'included stream Id' from string '', skipping"), 1U);
    ASSERT_EQ(capture_.Count("All file streams will be included"), 1U);
    for (const auto& record : capture_.Records()) {
        if (record.message == "All file streams will be included") {
            EXPECT_EQ(record.level, 6);
            EXPECT_EQ(record.tag, "KEL2File");
        }
    }
}

TEST_F(IncludedStreamsTest, StreamMissingFromTheFileFailsInitialisation) {
    EXPECT_EQ(Open(file_, "7"), KEL::KEL_ERR_INVALID);
    EXPECT_EQ(source_->GetLastErrorMessage(), "There are no included file streams");
    ExpectClosed();
}

TEST_F(SingleFileSourceTest, MissingFileFailsWithTheReadersCode) {
    const std::string missing = dir_.File("missing.kel");
    KEL::ReadKEL2File direct(missing.c_str());
    const KEL::KelErrorCode expected = direct.Initialize();

    EXPECT_EQ(Open(missing), expected);
    EXPECT_EQ(expected, KEL::KEL_ERR_NOT_FOUND);
    EXPECT_EQ(source_->GetLastErrorMessage(), "Failed to open file '" + missing + "'");
    ExpectClosed();
}

TEST_F(SingleFileSourceTest, FileThatIsNotAContainerFailsWithTheReadersCode) {
    std::ofstream(file_) << "plain text, not a container";
    KEL::ReadKEL2File direct(file_.c_str());
    const KEL::KelErrorCode expected = direct.Initialize();
    ASSERT_NE(expected, KEL::KEL_OK);

    EXPECT_EQ(Open(file_), expected);
    EXPECT_EQ(source_->GetLastErrorMessage(), "Failed to open file '" + file_ + "'");
    ExpectClosed();
}

TEST_F(SingleFileSourceTest, EmptyContainerHasNoIncludedStreams) {
    kel_test::WriteRecording(file_, {});

    EXPECT_EQ(Open(file_), KEL::KEL_ERR_INVALID);
    EXPECT_EQ(source_->GetLastErrorMessage(), "There are no included file streams");
    ExpectClosed();
}

TEST_F(SingleFileSourceTest, FirstAtomWithoutStreamInfoFailsInitialisation) {
    kel_test::RecordingOptions options;
    options.withoutStreamInfo = true;
    kel_test::WriteRecording(file_, {{1, 3}}, options);
    KelCommon::ScopedLogCapture capture;

    EXPECT_EQ(Open(file_), KEL::KEL_ERR_INVALID);
    EXPECT_EQ(source_->GetLastErrorMessage(), "Failed to extract stream info for the '" + file_ + "' file");
    EXPECT_EQ(capture.Count("The atom lacks stream info data layer"), 1U);
    ExpectClosed();
}

TEST_F(SingleFileSourceTest, UnreadableFirstAtomOfTheFirstStreamFailsInitialisation) {
    kel_test::WriteRecording(file_, {{1, 3}, {2, 3}});
    kel_test::CorruptAtMarker(file_, "take-1-0-MARK");
    KEL::ReadKEL2File probe(file_.c_str());
    ASSERT_EQ(probe.Initialize(), 0U);
    ASSERT_EQ(probe.GetNumFrames(1), 3U);
    ASSERT_EQ(probe.GetFirstFrameAtom(1), nullptr);

    EXPECT_EQ(Open(file_, "2"), KEL::KEL_ERR_INVALID);
    EXPECT_EQ(source_->GetLastErrorMessage(), "There is no 'first' atom in the '" + file_ + "' file");
    ExpectClosed();
}

TEST_F(SingleFileSourceTest, UnreadableFirstAtomOfAnIncludedStreamFailsLoosenerSetup) {
    kel_test::WriteRecording(file_, {{1, 3}, {2, 3}});
    kel_test::CorruptAtMarker(file_, "take-2-0-MARK");
    KEL::ReadKEL2File probe(file_.c_str());
    ASSERT_EQ(probe.Initialize(), 0U);
    ASSERT_EQ(probe.GetNumFrames(2), 3U);
    ASSERT_EQ(probe.GetFirstFrameAtom(2), nullptr);
    KelCommon::ScopedLogCapture capture;

    EXPECT_EQ(Open(file_), KEL::KEL_ERR_INVALID);
    EXPECT_EQ(source_->GetLastErrorMessage(), "Failed to setup data looseners");
    EXPECT_EQ(capture.Count("There is no 'first' atom in the '2' stream, can not setup optimized data loosener"), 1U);
    ExpectClosed();
}

TEST_F(SingleFileSourceTest, StreamInfoAnnouncesTheShortestStreamsFrameCount) {
    kel_test::WriteRecording(file_, {{1, 6}, {2, 4}});

    ASSERT_EQ(Open(file_), 0U);

    ASSERT_NE(source_->GetStreamInfo(), nullptr);
    EXPECT_EQ(source_->GetStreamInfo()->GetNumFrames(), 4U);
    EXPECT_EQ(source_->GetStreamInfo()->GetName(), "camera1");
}

TEST_F(SingleFileSourceTest, OutputProfileIsANewCopyOfTheFirstAtomsProfile) {
    kel_test::WriteRecording(file_, {{1, 2}});
    ASSERT_EQ(Open(file_), 0U);

    const auto a = source_->GetOutputProfile();
    const auto b = source_->GetAggregatedOutputProfile();

    ASSERT_NE(a, nullptr);
    ASSERT_NE(b, nullptr);
    EXPECT_NE(a, b);
    EXPECT_EQ(a->Size(), kel_test::MakeRecordedAtom(1, 0, 2)->GetNumDataLayers());
    EXPECT_TRUE(a->Describes(b));
    EXPECT_TRUE(b->Describes(a));
}

TEST_F(SingleFileSourceTest, FrameIsPushedForEveryStreamInOrder) {
    kel_test::WriteRecording(file_, {{4, 3}, {2, 3}});
    ASSERT_EQ(Open(file_), 0U);

    const auto result = kel_test::PushFrame(*source_, 1);

    EXPECT_EQ(result.code, 0U);
    ASSERT_EQ(result.atoms.size(), 2U);
    EXPECT_EQ(result.atoms[0]->GetStreamId(), 4);
    EXPECT_EQ(result.atoms[1]->GetStreamId(), 2);
    EXPECT_EQ(result.atoms[0]->GetFrameNr(), 1U);
    EXPECT_EQ(result.atoms[1]->GetFrameNr(), 1U);
}

TEST_F(SingleFileSourceTest, FrameMissingInOneStreamPushesNothing) {
    kel_test::WriteRecording(file_, {{1, 5}, {2, 5, {2}}});
    ASSERT_EQ(Open(file_), 0U);
    KelCommon::ScopedLogCapture capture;

    const auto missing = kel_test::PushFrame(*source_, 2);
    const auto next = kel_test::PushFrame(*source_, 3);

    EXPECT_EQ(missing.code, 1U);
    EXPECT_TRUE(missing.atoms.empty());
    EXPECT_EQ(capture.Count("Stream '2' lacks an atom with frame number '2'"), 1U);
    EXPECT_EQ(next.code, 0U);
    EXPECT_EQ(next.atoms.size(), 2U);
}

TEST_F(SingleFileSourceTest, OptimizedLaterAtomsPlayBackComplete) {
    kel_test::WriteRecording(file_, {{1, 4}, {2, 4}});
    auto graph = std::make_unique<KEL::Graph>();
    auto* source = graph->AddFilter(std::unique_ptr<KEL::Filter>(SourceKEL2FileReaderFilterCreator()), "source");
    auto* target = static_cast<kel_test::CollectingTarget*>(
        graph->AddFilter(std::make_unique<kel_test::CollectingTarget>(), "collect"));
    ASSERT_NE(source, nullptr);
    ASSERT_NE(target, nullptr);
    kel_test::SetParam(*source, "KEL File Path", file_);
    ASSERT_EQ(graph->Connect(source, target), 0U);
    std::string error;
    ASSERT_EQ(graph->Initialize(&error), 0U) << error;

    const auto result = graph->Run();

    ASSERT_TRUE(result.Ok()) << result.message;
    ASSERT_EQ(target->atoms.size(), 8U);
    const auto streamInfo = static_cast<KEL::Source*>(source)->GetStreamInfo();
    for (std::size_t i = 0; i < target->atoms.size(); ++i) {
        const auto& atom = target->atoms[i];
        const std::uint16_t stream = static_cast<std::uint16_t>(1 + i % 2);
        const std::uint32_t frame = static_cast<std::uint32_t>(i / 2);
        EXPECT_EQ(atom->GetStreamId(), stream);
        EXPECT_EQ(atom->GetFrameNr(), frame);
        const auto expected = kel_test::MakeRecordedAtom(stream, frame, 4);
        EXPECT_EQ(kel_test::SortedLayerKinds(*atom), kel_test::SortedLayerKinds(*expected)) << "atom " << i;
        EXPECT_EQ(atom->GetTimeStamp(), expected->GetTimeStamp());
        EXPECT_TRUE(atom->GetDataLayerByType(KEL::DataTypeTextureRGBA::TheTypeGuid(), false)
                        ->ContentEquals(*expected->GetDataLayerByType(KEL::DataTypeTextureRGBA::TheTypeGuid(), false)));
        EXPECT_EQ(atom->GetDataLayerByType(KEL::DataTypeStreamInfo::TheTypeGuid(), false), streamInfo);
        EXPECT_EQ(kel_test::TakeOf(*atom), "take");
    }
}

TEST_F(SingleFileSourceTest, ReinitialisesWithOtherValuesAfterDeInitialize) {
    kel_test::WriteRecording(file_, {{1, 3}, {2, 3}});
    const std::string other = dir_.File("other.kel");
    kel_test::WriteRecording(other, {{5, 2}, {6, 2}});
    ASSERT_EQ(Open(file_, "2"), 0U);
    ASSERT_EQ(source_->GetStreamIds(), (std::vector<std::uint32_t>{2}));

    EXPECT_EQ(source_->onDeInitialize(), 0U);
    ExpectClosed();

    ASSERT_EQ(Open(other, "6,5"), 0U);
    EXPECT_EQ(source_->GetStreamIds(), (std::vector<std::uint32_t>{5, 6}));
    EXPECT_EQ(source_->GetStreamInfo()->GetNumFrames(), 2U);
    const auto result = kel_test::PushFrame(*source_, 1);
    ASSERT_EQ(result.code, 0U);
    ASSERT_EQ(result.atoms.size(), 2U);
    EXPECT_EQ(result.atoms[0]->GetStreamId(), 5);
}

TEST_F(SingleFileSourceTest, ParametersAreCreatedOnceAndReadAtInitialisation) {
    ASSERT_EQ(source_->onInitializeParams(nullptr), 0U);
    const auto path = source_->FindParam("KEL File Path");
    const auto included = source_->FindParam("Included streams");
    ASSERT_EQ(source_->onInitializeParams(nullptr), 0U);

    ASSERT_NE(path, nullptr);
    ASSERT_NE(included, nullptr);
    EXPECT_EQ(source_->FindParam("KEL File Path"), path);
    EXPECT_EQ(source_->FindParam("Included streams"), included);
    EXPECT_EQ(source_->GetParams().size(), 2U);
    EXPECT_EQ(path->GetFlags(), 1U);
    EXPECT_EQ(path->GetType(), KEL::FilterParamType::ReadFilePath);
    EXPECT_EQ(std::static_pointer_cast<KEL::FilterParamFilePath>(path)->GetExtension(), "kel");
    EXPECT_EQ(included->GetFlags(), 1U);
    EXPECT_EQ(included->GetType(), KEL::FilterParamType::String);
    EXPECT_EQ(included->GetValueAsString(), "");
}

TEST(SourceRegistration, ClassesAreRegisteredWithTheirGuidNameAndCategory) {
    const struct {
        const char* name;
        const char* guid;
    } expected[] = {
        {"SourceKEL2FileReader", "B74863F3-13CF-47A0-9F90-07718FC52AB6"},
        {"SourceKEL2MultiFileAppend", "757504F3-A320-43A6-BFD1-9ACE60EDEB7E"},
        {"SourceKEL2MultiFileReader", "6D82A817-BAC2-4277-B599-7848F2170ADD"},
    };
    for (const auto& entry : expected) {
        const auto guid = KelCommon::Guid::FromHexString(entry.guid);
        const auto registered = KEL::FilterFactory::Find(guid);
        ASSERT_TRUE(registered.has_value()) << entry.name;
        EXPECT_EQ(registered->info.GetName(), entry.name);
        EXPECT_EQ(registered->info.GetCategory(), KEL::FILTER_CATEGORY_SOURCE);
        auto filter = KEL::FilterFactory::CreateFilter(guid);
        ASSERT_NE(filter, nullptr) << entry.name;
        EXPECT_EQ(filter->TypeGuid(), guid);
        EXPECT_EQ(filter->GetFilterClassInfo().GetName(), entry.name);
        EXPECT_EQ(filter->GetFilterClassInfo().GetCategory(), KEL::FILTER_CATEGORY_SOURCE);
        EXPECT_NE(dynamic_cast<KEL::Source*>(filter.get()), nullptr);
    }
    EXPECT_EQ(SourceKEL2FileReader::TheTypeGuid(), KelCommon::Guid::FromHexString(expected[0].guid));
    EXPECT_EQ(SourceKEL2FileReader::TheFilterClassInfo().GetName(), "SourceKEL2FileReader");
    EXPECT_GT(SourceKEL2FileReader::sRegistrationId, 0);
}

}  // namespace
