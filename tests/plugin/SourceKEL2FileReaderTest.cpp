#include <KEL/DataTypeStaticInfo.h>
#include <KEL/DataTypeStreamInfo.h>
#include <KEL/KelErrorCode.h>
#include <KelCommon/Logger.h>
#include <KelCommon/VarManager.h>
#include <gtest/gtest.h>

#include "plugin/RecordingFiles.h"
#include "sources/SourceKEL2FileReader.h"
#include "sources/SourceKEL2MultiFileAppend.h"
#include "sources/SourceKEL2MultiFileReader.h"
#include "support/TestSupport.h"

namespace {

using Kel2File::SourceKEL2FileReader;
using Ids = std::vector<std::uint32_t>;
using kel_test::WriteFiles;
const std::vector<kel_test::StreamSpec> kFourStreams = {{0, 3}, {1, 3}, {2, 3}, {3, 3}};
const std::string kNoIncludedStreams = "There are no included file streams";

class SingleFileSourceTest : public ::testing::Test {
protected:
    KEL::KelErrorCode Open(const std::string& path, const std::string& included = "") {
        return source_.Open(path, {{"Included streams", included}});
    }

    kel_test::TempDir dir_;
    std::string file_ = dir_.File("rec.kel");
    kel_test::SourceUnderTest source_{SourceKEL2FileReaderFilterCreator, "KEL File Path"};
};

// How one "Included streams" text selects among streams 0 to 3 of a file,
// and the pieces it logs as skipped (each once). A text without any valid id
// includes every stream and says so.
struct IncludedStreamsCase {
    const char* name;
    const char* text;
    Ids included;
    std::vector<std::string> skipped;
};

class IncludedStreamsTest : public SingleFileSourceTest, public ::testing::WithParamInterface<IncludedStreamsCase> {};

TEST_P(IncludedStreamsTest, SelectsTheStreamsInFileOrderAndLogsWhatItSkips) {
    const auto& param = GetParam();
    kel_test::WriteRecording(file_, kFourStreams);
    KelCommon::VarManager::getInstance().setVar("KEL2FILE_TEST_STREAMS", "0,2");
    KelCommon::ScopedLogCapture capture;

    ASSERT_EQ(Open(file_, param.text), 0U) << source_->GetLastErrorMessage();

    KelCommon::VarManager::getInstance().unsetVar("KEL2FILE_TEST_STREAMS");
    EXPECT_EQ(source_->GetStreamIds(), param.included);
    EXPECT_EQ(source_->GetOutputNumStreams(), param.included.size());
    EXPECT_EQ(capture.CountContaining("Failed to parse"), param.skipped.size());
    for (const auto& piece : param.skipped) {
        EXPECT_EQ(capture.Count("Failed to parse 'included stream Id' from string '" + piece + "', skipping"), 1U);
    }
    const bool all = param.included.size() == kFourStreams.size();
    EXPECT_EQ(capture.Count("All file streams will be included"), all ? 1U : 0U);
    for (const auto& record : capture.Records()) {
        EXPECT_EQ(record.level, record.message.starts_with("Failed") ? 2 : 6) << record.message;
        EXPECT_EQ(record.tag, "KEL2File");
    }
}

INSTANTIATE_TEST_SUITE_P(
    Texts, IncludedStreamsTest,
    ::testing::Values(IncludedStreamsCase{"ListedStreamsAreIncludedInFileOrder", "3, 1", {1, 3}, {}},
                      IncludedStreamsCase{"PieceThatIsNotANumberIsLoggedAndSkipped", "x,2", {2}, {"x"}},
                      IncludedStreamsCase{"EmptyPieceBetweenCommasIsLoggedOnce", "1,,2", {1, 2}, {""}},
                      IncludedStreamsCase{"NumberFollowedByTextCountsAsTheNumber", "2abc", {2}, {}},
                      IncludedStreamsCase{"NumberOutsideIntRangeIsSkipped", "99999999999,0", {0}, {"99999999999"}},
                      IncludedStreamsCase{"StreamIdKeepsTheLowSixteenBits", "65537", {1}, {}},
                      IncludedStreamsCase{"SurroundingWhiteSpaceIsTrimmed", "  2,3  ", {2, 3}, {}},
                      IncludedStreamsCase{"VariablesAreExpanded", "${KEL2FILE_TEST_STREAMS}", {0, 2}, {}},
                      IncludedStreamsCase{"NoValidIdIncludesEveryStream", "x", {0, 1, 2, 3}, {"x"}},
                      // An empty text is one empty piece, reported like any other.
                      IncludedStreamsCase{"EmptyValueIncludesEveryStream", "", {0, 1, 2, 3}, {""}}),
    kel_test::CaseName());

class SingleFileSourceInitFailureTest : public ::testing::TestWithParam<kel_test::InitFailureCase> {};

TEST_P(SingleFileSourceInitFailureTest, ReportsTheErrorAndLeavesTheSourceClosed) {
    kel_test::CheckInitFailure(SourceKEL2FileReaderFilterCreator, "KEL File Path", GetParam());
}

INSTANTIATE_TEST_SUITE_P(
    Files, SingleFileSourceInitFailureTest,
    ::testing::Values(
        kel_test::InitFailureCase{"StreamMissingFromTheFileFailsInitialisation",
                                  WriteFiles({{"rec.kel", kFourStreams}}, {}, "rec.kel"),
                                  KEL::KEL_ERR_INVALID,
                                  kNoIncludedStreams,
                                  "",
                                  "",
                                  {{"Included streams", "7"}}},
        kel_test::InitFailureCase{"MissingFileFailsWithTheReadersCode",
                                  [](const kel_test::TempDir& dir) { return dir.File("missing.kel"); },
                                  KEL::KEL_ERR_NOT_FOUND, "Failed to open file '%s'", "", "missing.kel"},
        kel_test::InitFailureCase{"FileThatIsNotAContainerFailsWithTheReadersCode",
                                  [](const kel_test::TempDir& dir) {
                                      kel_test::WriteNonContainer(dir.File("rec.kel"));
                                      return dir.File("rec.kel");
                                  },
                                  {},
                                  "Failed to open file '%s'",
                                  "",
                                  "rec.kel"},
        kel_test::InitFailureCase{"EmptyContainerHasNoIncludedStreams", WriteFiles({{"rec.kel", {}}}, {}, "rec.kel"),
                                  KEL::KEL_ERR_INVALID, kNoIncludedStreams},
        kel_test::InitFailureCase{"FirstAtomWithoutStreamInfoFailsInitialisation",
                                  WriteFiles({{"rec.kel", {{1, 3}}, {.withoutStreamInfo = true}}}, {}, "rec.kel"),
                                  KEL::KEL_ERR_INVALID, "Failed to extract stream info for the '%s' file",
                                  "The atom lacks stream info data layer"},
        kel_test::InitFailureCase{"UnreadableFirstAtomOfTheFirstStreamFailsInitialisation",
                                  WriteFiles({{"rec.kel", {{1, 3}, {2, 3}}}}, {{"rec.kel", 1}}, "rec.kel"),
                                  KEL::KEL_ERR_INVALID,
                                  "There is no 'first' atom in the '%s' file",
                                  "",
                                  "",
                                  {{"Included streams", "2"}}},
        kel_test::InitFailureCase{"UnreadableFirstAtomOfAnIncludedStreamFailsLoosenerSetup",
                                  WriteFiles({{"rec.kel", {{1, 3}, {2, 3}}}}, {{"rec.kel", 2}}, "rec.kel"),
                                  KEL::KEL_ERR_INVALID, "Failed to setup data looseners",
                                  "There is no 'first' atom in the '2' stream, can not setup optimized data loosener"}),
    kel_test::CaseName());

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

TEST_F(SingleFileSourceTest, FrameThatOneStreamLacksIsNotPushedAtAll) {
    kel_test::WriteRecording(file_, {{4, 5}, {2, 5, {2}}});
    ASSERT_EQ(Open(file_), 0U);
    KelCommon::ScopedLogCapture capture;

    const auto missing = kel_test::PushFrame(*source_, 2);

    EXPECT_EQ(missing.code, 1U);
    EXPECT_TRUE(missing.atoms.empty());
    EXPECT_EQ(capture.Count("Stream '2' lacks an atom with frame number '2'"), 1U);
    EXPECT_EQ(kel_test::PushFrame(*source_, 3).atoms.size(), 2U);
}

// The file's streams in file order, as many frames as the shortest holds,
// later atoms restored from their stream's first atom; the stream
// information is that of the file's first stream.
TEST_F(SingleFileSourceTest, PlaysTheShortestStreamsFrameCountOfCompleteAtoms) {
    kel_test::WriteRecording(file_, {{4, 6}, {2, 4}});

    const auto played = kel_test::PlayThroughGraph(SourceKEL2FileReaderFilterCreator, "KEL File Path", file_);

    ASSERT_NE(played.streamInfo, nullptr);
    EXPECT_EQ(played.streamInfo->GetNumFrames(), 4U);
    EXPECT_EQ(played.streamInfo->GetName(), "camera4");
    ASSERT_EQ(played.atoms.size(), 8U);
    for (std::size_t i = 0; i < played.atoms.size(); ++i) {
        const auto [stream, frames] = i % 2 == 0 ? std::pair(4, 6) : std::pair(2, 4);
        const auto expected = kel_test::MakeRecordedAtom(stream, static_cast<std::uint32_t>(i / 2), frames);
        kel_test::ExpectPlayed(*played.atoms[i], *expected, played.streamInfo);
    }
}

TEST_F(SingleFileSourceTest, ReinitialisesWithOtherValuesAfterDeInitialize) {
    kel_test::WriteRecording(file_, {{1, 3}, {2, 3}});
    const std::string other = dir_.File("other.kel");
    kel_test::WriteRecording(other, {{5, 2}, {6, 2}});
    ASSERT_EQ(Open(file_, "2"), 0U);
    ASSERT_EQ(source_->GetStreamIds(), Ids{2});

    EXPECT_EQ(source_->onDeInitialize(), 0U);
    source_.ExpectClosed();

    ASSERT_EQ(Open(other, "6,5"), 0U);
    EXPECT_EQ(source_->GetStreamIds(), (Ids{5, 6}));
    EXPECT_EQ(source_->GetStreamInfo()->GetNumFrames(), 2U);
    EXPECT_EQ(kel_test::PushFrame(*source_, 1).atoms.size(), 2U);
}

// The sources' parameters, all read at initialisation (flags 1), with their
// types and default values; a second call adds the same objects again.
TEST(SourceParameters, AreCreatedOnceWithTheirTypesAndDefaults) {
    using Expected = std::vector<std::pair<std::string, std::string>>;  // name, type: default
    const std::string directory = "dir: " + KelCommon::VarManager::getInstance().getRootValue().str() + "/kel_files";
    for (const auto& [creator, expected] : std::vector<std::pair<KEL::FilterCreator, Expected>>{
             {&SourceKEL2FileReaderFilterCreator, {{"KEL File Path", "read-file: "}, {"Included streams", "string: "}}},
             {&SourceKEL2MultiFileAppendFilterCreator, {{"KEL files dir", directory}}},
             {&SourceKEL2MultiFileReaderFilterCreator, {{"KEL files dir", directory}}}}) {
        const std::unique_ptr<KEL::Filter> source(creator());
        SCOPED_TRACE(source->GetFilterClassInfo().GetName());
        ASSERT_EQ(source->onInitializeParams(nullptr), 0U);
        const auto params = source->GetParams();
        ASSERT_EQ(source->onInitializeParams(nullptr), 0U);
        EXPECT_EQ(source->GetParams(), params);
        ASSERT_EQ(params.size(), expected.size());
        for (std::size_t i = 0; i < params.size(); ++i) {
            EXPECT_EQ(params[i]->GetName(), expected[i].first);
            EXPECT_EQ(params[i]->GetFlags(), 1U);
            EXPECT_EQ(std::string(params[i]->GetTypeName()) + ": " + params[i]->GetValueAsString(), expected[i].second);
        }
    }
    const std::unique_ptr<KEL::Filter> reader(SourceKEL2FileReaderFilterCreator());
    ASSERT_EQ(reader->onInitializeParams(nullptr), 0U);
    const auto path = std::dynamic_pointer_cast<KEL::FilterParamFilePath>(reader->FindParam("KEL File Path"));
    ASSERT_NE(path, nullptr);
    EXPECT_EQ(path->GetExtension(), "kel");
}

}  // namespace
