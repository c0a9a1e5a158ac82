#include <KEL/DataTypeStreamInfo.h>
#include <KEL/KelErrorCode.h>
#include <KelCommon/Logger.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "plugin/RecordingFiles.h"
#include "sources/SourceKEL2MultiFileReader.h"
#include "support/TestSupport.h"

namespace {

using kel_test::RecordingOptions;
using kel_test::StreamSpec;
constexpr auto kCreator = &SourceKEL2MultiFileReaderFilterCreator;

// Generated directories: streams spread over several files of different
// lengths, sometimes beside a file without streams. The source plays every
// stream in ascending order, as many frames as the shortest file holds, each
// atom restored from its own file.
TEST(MergedSource, PlaysEveryStreamOfEveryFileUpToTheShortestFile) {
    for (std::uint32_t seed = 0; seed < 6; ++seed) {
        SCOPED_TRACE(seed);
        std::mt19937 random(seed);
        kel_test::TempDir dir;
        std::vector<std::uint16_t> streams = {1, 2, 5, 9, 12};
        std::shuffle(streams.begin(), streams.end(), random);
        streams.resize(1 + random() % streams.size());
        const std::size_t numFiles = 1 + random() % std::min<std::size_t>(3, streams.size());
        std::map<std::uint16_t, std::pair<std::string, std::uint32_t>> fileOf;  // stream: take, frames
        std::uint32_t shortest = ~0U;
        for (std::size_t f = 0; f < numFiles; ++f) {
            const std::string take = "file" + std::to_string(f);
            const std::uint32_t frames = 1 + random() % 5;
            std::vector<StreamSpec> specs;
            for (std::size_t i = f; i < streams.size(); i += numFiles) {
                specs.emplace_back(streams[i], frames);
                fileOf[streams[i]] = {take, frames};
            }
            kel_test::WriteRecording(dir.File(take + ".kel"), specs, {.take = take});
            shortest = std::min(shortest, frames);
        }
        if (random() % 2 == 0) {
            kel_test::WriteRecording(dir.File("empty.kel"), {});
        }

        const auto played = kel_test::PlayThroughGraph(kCreator, "KEL files dir", dir.Path().string());

        ASSERT_NE(played.streamInfo, nullptr);
        EXPECT_EQ(played.streamInfo->GetNumFrames(), shortest);
        EXPECT_EQ(played.streamInfo->GetName(), "camera" + std::to_string(fileOf.begin()->first));
        ASSERT_EQ(played.atoms.size(), shortest * fileOf.size());
        auto atom = played.atoms.begin();
        for (std::uint32_t frame = 0; frame < shortest; ++frame) {
            for (const auto& [stream, file] : fileOf) {
                const auto expected = kel_test::MakeRecordedAtom(stream, frame, file.second, {.take = file.first});
                kel_test::ExpectPlayed(**atom++, *expected, played.streamInfo);
            }
        }
    }
}

TEST(MergedSource, FrameBeyondTheShortestFileIsNotPushed) {
    kel_test::TempDir dir;
    kel_test::WriteRecording(dir.File("a.kel"), {{1, 10}});
    kel_test::WriteRecording(dir.File("b.kel"), {{2, 8}});
    kel_test::SourceUnderTest source(kCreator, "KEL files dir");
    ASSERT_EQ(source.Open(dir.Path().string()), 0U) << source->GetLastErrorMessage();
    KelCommon::ScopedLogCapture capture;

    const auto result = kel_test::PushFrame(*source, 8);

    EXPECT_EQ(result.code, 1U);
    EXPECT_TRUE(result.atoms.empty());
    EXPECT_EQ(capture.Count("Stream '2' lacks an atom with frame number '8'"), 1U);
}

class MergedSourceInitFailureTest : public ::testing::TestWithParam<kel_test::InitFailureCase> {};

TEST_P(MergedSourceInitFailureTest, ReportsTheErrorAndLeavesTheSourceClosed) {
    kel_test::CheckInitFailure(kCreator, "KEL files dir", GetParam());
}

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

TEST(MergedSource, ReinitialisesAfterDeInitialize) {
    kel_test::TempDir dir;
    kel_test::WriteRecording(dir.File("a.kel"), {{1, 3}});
    kel_test::WriteRecording(dir.File("b.kel"), {{2, 3}});
    kel_test::SourceUnderTest source(kCreator, "KEL files dir");
    ASSERT_EQ(source.Open(dir.Path().string()), 0U);

    EXPECT_EQ(source->onDeInitialize(), 0U);
    source.ExpectClosed();
    ASSERT_EQ(source.Open(dir.Path().string()), 0U) << source->GetLastErrorMessage();

    EXPECT_EQ(source->GetStreamIds(), (std::vector<std::uint32_t>{1, 2}));
}

}  // namespace
