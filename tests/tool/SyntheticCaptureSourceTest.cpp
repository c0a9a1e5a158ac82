// The synthetic capture source, driven directly through its hooks.

#include <KEL/DataTypeCameraParams.h>
#include <KEL/DataTypeStreamInfo.h>
#include <KEL/DataTypeTextureRGBA.h>
#include <gtest/gtest.h>

#include "plugins/synthetic/SyntheticCaptureSource.h"
#include "support/TestSupport.h"

namespace {

using KelSynthetic::SyntheticCaptureSource;

std::unique_ptr<SyntheticCaptureSource> MakeSource(const std::vector<std::pair<std::string, std::string>>& values) {
    auto source = std::make_unique<SyntheticCaptureSource>();
    EXPECT_EQ(source->onInitializeParams(nullptr), KEL::KEL_OK);
    for (const auto& [name, value] : values) {
        std::string error;
        EXPECT_TRUE(source->FindParam(name)->SetValueFromString(value, &error)) << name << ": " << error;
    }
    EXPECT_EQ(source->onInitialize(nullptr), KEL::KEL_OK);
    return source;
}

std::shared_ptr<KEL::DataTypeTextureRGBA> Image(const std::shared_ptr<KEL::Atom>& atom) {
    return KEL::LayerCast<KEL::DataTypeTextureRGBA>(
        atom->GetDataLayerByType(KEL::DataTypeTextureRGBA::TheTypeGuid(), false));
}

TEST(SyntheticCaptureSource, PushesOneAtomPerCameraAndNothingPastTheEnd) {
    auto source = MakeSource({{"Streams", "3"}, {"Frames", "4"}, {"Width", "32"}, {"Height", "16"}});
    EXPECT_EQ(source->GetOutputNumStreams(), 3U);
    EXPECT_EQ(source->GetStreamIds(), (std::vector<std::uint32_t>{0, 1, 2}));
    ASSERT_TRUE(source->GetStreamInfo());
    EXPECT_EQ(source->GetStreamInfo()->GetNumFrames(), 4U);

    ASSERT_EQ(source->pushDataToOutput(3), KEL::KEL_OK);
    const auto atoms = source->TakeOutputQueue();
    ASSERT_EQ(atoms.size(), 3U);
    for (std::uint16_t s = 0; s < 3; ++s) {
        EXPECT_EQ(atoms[s]->GetStreamId(), s);
        EXPECT_EQ(atoms[s]->GetFrameNr(), 3U);
        EXPECT_EQ(atoms[s]->GetTimeStamp(), 1'700'000'000'000'000 + 100'000);
        const auto image = Image(atoms[s]);
        ASSERT_TRUE(image);
        EXPECT_EQ(image->GetWidth(), 32U);
        EXPECT_EQ(image->GetPixels().size(), 32U * 16U * 4U);
    }
    EXPECT_NE(source->pushDataToOutput(4), KEL::KEL_OK);
    EXPECT_TRUE(source->TakeOutputQueue().empty());
}

TEST(SyntheticCaptureSource, AtomsAreCompleteAndMatchTheProfile) {
    auto source = MakeSource({{"Width", "16"}, {"Height", "16"}});
    const auto kinds = kel_test::LayerKinds(*source->MakeAtom(1, 0));
    for (const char* kind :
         {"StreamInfo/STATIC", "RecordingInfo/STATIC", "StaticInfo/STATIC", "Binary/STATIC", "CylinderCrop/CROP",
          "TextureRGBA/PRIMARY_COLOR", "Mesh/DYNAMIC", "CameraParams/CAMERA_PRIMARY"}) {
        EXPECT_NE(std::find(kinds.begin(), kinds.end(), kind), kinds.end()) << kind;
    }
    auto profile = std::make_shared<KEL::Profile>();
    for (const auto& layer : source->MakeAtom(2, 7)->GetAllDataLayers()) {
        profile->Add(layer->GetDataProfile());
    }
    ASSERT_TRUE(source->GetOutputProfile());
    EXPECT_TRUE(source->GetOutputProfile()->Describes(profile));
    EXPECT_TRUE(profile->Describes(source->GetOutputProfile()));
}

TEST(SyntheticCaptureSource, MeshCanBeLeftOut) {
    auto source = MakeSource({{"Include mesh", "false"}, {"Width", "16"}, {"Height", "16"}});
    const auto kinds = kel_test::LayerKinds(*source->MakeAtom(0, 0));
    EXPECT_EQ(std::find(kinds.begin(), kinds.end(), "Mesh/DYNAMIC"), kinds.end());
}

TEST(SyntheticCaptureSource, SameParametersGiveTheSameAtoms) {
    auto a = MakeSource({{"Width", "24"}, {"Height", "16"}});
    auto b = MakeSource({{"Width", "24"}, {"Height", "16"}});
    std::string why;
    EXPECT_TRUE(kel_test::AtomsEqual(*a->MakeAtom(1, 9), *b->MakeAtom(1, 9), &why)) << why;
}

TEST(SyntheticCaptureSource, CamerasAndFramesLookDifferent) {
    auto source = MakeSource({{"Width", "64"}, {"Height", "48"}});
    const auto first = Image(source->MakeAtom(0, 0));
    EXPECT_FALSE(first->GetPixels().ContentEquals(Image(source->MakeAtom(1, 0))->GetPixels()));
    EXPECT_FALSE(first->GetPixels().ContentEquals(Image(source->MakeAtom(0, 1))->GetPixels()));
    const auto pose0 = KEL::LayerCast<KEL::DataTypeCameraParams>(
        source->MakeAtom(0, 0)->GetDataLayerByType(KEL::DataTypeCameraParams::TheTypeGuid(), false));
    const auto pose1 = KEL::LayerCast<KEL::DataTypeCameraParams>(
        source->MakeAtom(1, 0)->GetDataLayerByType(KEL::DataTypeCameraParams::TheTypeGuid(), false));
    ASSERT_TRUE(pose0 && pose1);
    EXPECT_NE(pose0->pose[3], pose1->pose[3]);
}

TEST(SyntheticCaptureSource, OutOfRangeParametersAreRefused) {
    SyntheticCaptureSource source;
    ASSERT_EQ(source.onInitializeParams(nullptr), KEL::KEL_OK);
    std::string error;
    EXPECT_FALSE(source.FindParam("Streams")->SetValueFromString("0", &error));
    EXPECT_FALSE(source.FindParam("Streams")->SetValueFromString("65", &error));
    EXPECT_FALSE(source.FindParam("Width")->SetValueFromString("8", &error));
    EXPECT_FALSE(source.FindParam("Frames")->SetValueFromString("many", &error));
}

TEST(SyntheticCaptureSource, DeInitializedSourcePushesNothing) {
    auto source = MakeSource({{"Width", "16"}, {"Height", "16"}});
    EXPECT_EQ(source->onDeInitialize(), KEL::KEL_OK);
    EXPECT_EQ(source->GetOutputNumStreams(), 0U);
    EXPECT_NE(source->pushDataToOutput(0), KEL::KEL_OK);
    EXPECT_FALSE(source->GetOutputProfile());
}

}  // namespace
