#include <KEL/DataTypeStaticInfo.h>
#include <KEL/DataTypeStreamInfo.h>
#include <KEL/FilterFactory.h>
#include <KEL/KelErrorCode.h>
#include <KelCommon/Logger.h>
#include <KelCommon/VarManager.h>
#include <gtest/gtest.h>

#include "plugin/RecordingFiles.h"
#include "sources/SourceKEL2FileReader.h"
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

// How one "Included streams" text selects among streams 0 to 3 of a file.
struct IncludedStreamsCase {
    const char* name;
    const char* text;
    Ids included;
    // Lines that must each be logged once.
    std::vector<std::string> logged;
    // How many "Failed to parse" lines there are in all (unchecked when -1).
    int parseFailures;
};

void PrintTo(const IncludedStreamsCase& entry, std::ostream* os) { *os << entry.name; }

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
    for (const auto& line : param.logged) {
        EXPECT_EQ(capture.Count(line), 1U) << line;
    }
    if (param.parseFailures >= 0) {
        EXPECT_EQ(capture.CountContaining("Failed to parse"), static_cast<std::size_t>(param.parseFailures));
    }
    for (const auto& record : capture.Records()) {
        if (record.message == "All file streams will be included") {
            EXPECT_EQ(record.level, 6);
            EXPECT_EQ(record.tag, "KEL2File");
        }
    }
}

std::string SkippedPiece(const std::string& piece) {
    return "Failed to parse 'included stream Id' from string '" + piece + "', skipping";
}

INSTANTIATE_TEST_SUITE_P(
    Texts, IncludedStreamsTest,
    ::testing::Values(
        IncludedStreamsCase{"ListedStreamsAreIncludedInFileOrder", "3, 1", {1, 3}, {}, 0},
        IncludedStreamsCase{"PieceThatIsNotANumberIsLoggedAndSkipped", "x,2", {2}, {SkippedPiece("x")}, 1},
        IncludedStreamsCase{"EmptyPieceBetweenCommasIsLoggedOnce", "1,,2", {1, 2}, {SkippedPiece("")}, 1},
        IncludedStreamsCase{"NumberFollowedByTextCountsAsTheNumber", "2abc", {2}, {}, 0},
        IncludedStreamsCase{"NumberOutsideIntRangeIsSkipped", "99999999999,0", {0}, {SkippedPiece("99999999999")}, 1},
        IncludedStreamsCase{"StreamIdKeepsTheLowSixteenBits", "65537", {1}, {}, -1},
        IncludedStreamsCase{"SurroundingWhiteSpaceIsTrimmed", "  2,3  ", {2, 3}, {}, 0},
        IncludedStreamsCase{"VariablesAreExpanded", "${KEL2FILE_TEST_STREAMS}", {0, 2}, {}, -1},
        IncludedStreamsCase{
            "NoValidIdIncludesEveryStream", "x", {0, 1, 2, 3}, {"All file streams will be included"}, -1},
        // An empty text is one empty piece, reported like any other.
        IncludedStreamsCase{"EmptyValueIncludesEveryStream",
                            "",
                            {0, 1, 2, 3},
                            {SkippedPiece(""), "All file streams will be included"},
                            1}),
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

TEST_F(SingleFileSourceTest, FrameIsPushedWholeForEveryStreamInFileOrderOrNotAtAll) {
    kel_test::WriteRecording(file_, {{4, 5}, {2, 5, {2}}});
    ASSERT_EQ(Open(file_), 0U);
    KelCommon::ScopedLogCapture capture;

    const auto complete = kel_test::PushFrame(*source_, 1);
    const auto missing = kel_test::PushFrame(*source_, 2);

    EXPECT_EQ(complete.code, 0U);
    ASSERT_EQ(complete.atoms.size(), 2U);
    EXPECT_EQ(complete.atoms[0]->GetStreamId(), 4);
    EXPECT_EQ(complete.atoms[1]->GetStreamId(), 2);
    EXPECT_EQ(complete.atoms[0]->GetFrameNr(), 1U);
    EXPECT_EQ(complete.atoms[1]->GetFrameNr(), 1U);
    EXPECT_EQ(missing.code, 1U);
    EXPECT_TRUE(missing.atoms.empty());
    EXPECT_EQ(capture.Count("Stream '2' lacks an atom with frame number '2'"), 1U);
    const auto next = kel_test::PushFrame(*source_, 3);
    EXPECT_EQ(next.code, 0U);
    EXPECT_EQ(next.atoms.size(), 2U);
}

TEST_F(SingleFileSourceTest, OptimizedLaterAtomsPlayBackComplete) {
    kel_test::WriteRecording(file_, {{1, 4}, {2, 4}});

    const auto played = kel_test::PlayThroughGraph(SourceKEL2FileReaderFilterCreator, "KEL File Path", file_);

    ASSERT_EQ(played.atoms.size(), 8U);
    for (std::size_t i = 0; i < played.atoms.size(); ++i) {
        const auto& atom = played.atoms[i];
        const auto stream = static_cast<std::uint16_t>(1 + i % 2);
        const auto frame = static_cast<std::uint32_t>(i / 2);
        EXPECT_EQ(atom->GetStreamId(), stream);
        EXPECT_EQ(atom->GetFrameNr(), frame);
        const auto expected = kel_test::MakeRecordedAtom(stream, frame, 4);
        EXPECT_EQ(kel_test::SortedLayerKinds(*atom), kel_test::SortedLayerKinds(*expected)) << "atom " << i;
        EXPECT_EQ(atom->GetTimeStamp(), expected->GetTimeStamp());
        EXPECT_TRUE(atom->GetDataLayerByType(KEL::DataTypeTextureRGBA::TheTypeGuid(), false)
                        ->ContentEquals(*expected->GetDataLayerByType(KEL::DataTypeTextureRGBA::TheTypeGuid(), false)));
        EXPECT_EQ(atom->GetDataLayerByType(KEL::DataTypeStreamInfo::TheTypeGuid(), false), played.streamInfo);
        EXPECT_EQ(kel_test::TakeOf(*atom), "take");
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
        SCOPED_TRACE(entry.name);
        const auto guid = KelCommon::Guid::FromHexString(entry.guid);
        const auto registered = KEL::FilterFactory::Find(guid);
        ASSERT_TRUE(registered.has_value());
        EXPECT_EQ(registered->info.GetName(), entry.name);
        EXPECT_EQ(registered->info.GetCategory(), KEL::FILTER_CATEGORY_SOURCE);
        auto filter = KEL::FilterFactory::CreateFilter(guid);
        ASSERT_NE(filter, nullptr);
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
