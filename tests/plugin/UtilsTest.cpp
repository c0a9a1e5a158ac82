#include <KEL/DataTypeStreamInfo.h>
#include <KelCommon/Logger.h>
#include <gtest/gtest.h>

#include "support/TestSupport.h"
#include "utils/Utils.h"

namespace {

using Kel2File::Utils;

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
    for (const auto& atom : {kel_test::MakeFirstAtom(1, 3), std::make_shared<KEL::Atom>(1, 0)}) {
        const auto profile = Utils::DetermineProfile(atom);

        ASSERT_NE(profile, nullptr);
        const auto layers = atom->GetAllDataLayers();
        ASSERT_EQ(profile->Size(), layers.size());
        for (std::size_t i = 0; i < layers.size(); ++i) {
            EXPECT_EQ(profile->GetDataProfiles()[i]->GetTypeGuid(), layers[i]->GetTypeGuid());
            EXPECT_EQ(profile->GetDataProfiles()[i]->GetPurposeGuid(), layers[i]->GetPurposeGuid());
        }
    }
}

}  // namespace
