#include <KEL/DataTypeStaticInfo.h>
#include <KEL/DataTypeStreamInfo.h>
#include <KEL/ReadKEL2File.h>
#include <KEL/SerializeToKel.h>
#include <KelCommon/Logger.h>
#include <gtest/gtest.h>

#include "plugin/RecordingFiles.h"
#include "support/TestSupport.h"
#include "utils/Utils.h"

namespace {

using Kel2File::Utils;

std::shared_ptr<KEL::ReadKEL2File> OpenReader(const std::string& path) {
    auto reader = std::make_shared<KEL::ReadKEL2File>(path.c_str());
    EXPECT_EQ(reader->Initialize(), 0U) << path;
    return reader;
}

TEST(UtilsFileNumFrames, IsTheFrameCountOfTheShortestStreamAndZeroWithoutStreams) {
    const struct {
        std::vector<kel_test::StreamSpec> streams;
        std::uint32_t frames;
    } cases[] = {{{{1, 10}, {2, 7}}, 7}, {{{9, 4}}, 4}, {{}, 0}};
    kel_test::TempDir dir;
    for (std::size_t i = 0; i < std::size(cases); ++i) {
        SCOPED_TRACE(i);
        const std::string path = dir.File(std::to_string(i) + ".kel");
        kel_test::WriteRecording(path, cases[i].streams);

        EXPECT_EQ(Utils::DetermineFileNumFrames(OpenReader(path)), cases[i].frames);
    }
}

TEST(UtilsStreamInfo, MissingStreamInfoGivesEmptyAndOneLogLine) {
    KelCommon::ScopedLogCapture capture;
    auto atom = kel_test::MakeFrameAtom(1, 0);

    EXPECT_EQ(Utils::ExtractStreamInfo(atom, 10), nullptr);

    EXPECT_EQ(capture.Count("The atom lacks stream info data layer"), 1U);
    ASSERT_EQ(capture.Records().size(), 1U);
    EXPECT_EQ(capture.Records()[0].level, 2);
    EXPECT_EQ(capture.Records()[0].tag, "KEL2File");
}

TEST(UtilsStreamInfo, FrameCountIsSetInTheAtomsOwnLayer) {
    auto atom = kel_test::MakeFirstAtom(1, 3);
    const auto own = atom->GetDataLayerByType(KEL::DataTypeStreamInfo::TheTypeGuid(), false);

    const auto info = Utils::ExtractStreamInfo(atom, 4321);

    ASSERT_NE(info, nullptr);
    EXPECT_EQ(info->GetNumFrames(), 4321U);
    EXPECT_EQ(std::static_pointer_cast<KEL::DataLayer>(info), own);
    EXPECT_EQ(KEL::LayerCast<KEL::DataTypeStreamInfo>(own)->GetNumFrames(), 4321U);
}

TEST(UtilsProfile, HoldsOneEntryPerLayerInLayerOrder) {
    auto atom = kel_test::MakeFirstAtom(1, 3);

    const auto profile = Utils::DetermineProfile(atom);

    ASSERT_NE(profile, nullptr);
    const auto layers = atom->GetAllDataLayers();
    ASSERT_EQ(profile->Size(), layers.size());
    for (std::size_t i = 0; i < layers.size(); ++i) {
        EXPECT_EQ(profile->GetDataProfiles()[i]->GetTypeGuid(), layers[i]->GetTypeGuid());
        EXPECT_EQ(profile->GetDataProfiles()[i]->GetPurposeGuid(), layers[i]->GetPurposeGuid());
    }
}

TEST(UtilsProfile, AtomWithoutLayersGivesAnEmptyProfile) {
    const auto profile = Utils::DetermineProfile(std::make_shared<KEL::Atom>(1, 0));

    ASSERT_NE(profile, nullptr);
    EXPECT_TRUE(profile->IsEmpty());
}

TEST(UtilsLoosen, UsesTheLoosenerOfTheAtomsStream) {
    auto infoA = std::make_shared<KEL::DataTypeStreamInfo>(5);
    auto infoB = std::make_shared<KEL::DataTypeStreamInfo>(6);
    Kel2File::OptimizedDataLooseners looseners;
    looseners[1] = std::make_shared<const Kel2File::OptimizedDataLoosener>(
        kel_test::MakeRecordedAtom(1, 0, 5, {.take = "A"}), infoA);
    looseners[2] = std::make_shared<const Kel2File::OptimizedDataLoosener>(
        kel_test::MakeRecordedAtom(2, 0, 6, {.take = "B"}), infoB);
    auto atom = kel_test::MakeFrameAtom(2, 4);

    Utils::LoosenOptimizedData(atom, looseners);

    EXPECT_EQ(kel_test::TakeOf(*atom), "B");
    EXPECT_EQ(atom->GetDataLayerByType(KEL::DataTypeStreamInfo::TheTypeGuid(), false), infoB);
}

}  // namespace
