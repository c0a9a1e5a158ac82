// The synthetic capture source, driven directly through its hooks. The tool
// tests play it end to end: which frames it delivers (told by their time
// stamps), per camera, with which layers, names and colours.

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

KelCommon::SharedBuffer Pixels(const std::shared_ptr<KEL::Atom>& atom) {
    const auto image = KEL::LayerCast<KEL::DataTypeTextureRGBA>(
        atom->GetDataLayerByType(KEL::DataTypeTextureRGBA::TheTypeGuid(), false));
    return image ? image->GetPixels() : KelCommon::SharedBuffer();
}

// Every layer a writer stores is there, as the output profile announces; the
// mesh can be left out; cameras and frames differ.
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
    EXPECT_FALSE(Pixels(source->MakeAtom(0, 0)).ContentEquals(Pixels(source->MakeAtom(1, 0))));
    EXPECT_FALSE(Pixels(source->MakeAtom(0, 0)).ContentEquals(Pixels(source->MakeAtom(0, 1))));
    const auto meshless = kel_test::LayerKinds(*MakeSource({{"Include mesh", "false"}})->MakeAtom(0, 0));
    EXPECT_EQ(std::find(meshless.begin(), meshless.end(), "Mesh/DYNAMIC"), meshless.end());
}

}  // namespace
