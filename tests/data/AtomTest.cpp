#include <KEL/PurposeGuids.h>
#include <gtest/gtest.h>

#include "support/TestSupport.h"

using KEL::Atom;
using KEL::DataTypeStreamInfo;
using KEL::DataTypeTextureRGBA;

namespace {

const KelCommon::Guid& kInfo = DataTypeStreamInfo::TheTypeGuid();
const KelCommon::Guid& kTexture = DataTypeTextureRGBA::TheTypeGuid();
const KelCommon::Guid& kCamera = KEL::DataTypeCameraParams::TheTypeGuid();

// Stream information, a 4x2 texture, a 2x2 thumbnail, camera parameters of
// versions 1 and 2, in that order.
std::shared_ptr<Atom> AtomWithLayers() {
    auto atom = std::make_shared<Atom>(3, 17, 1234);
    atom->AddDataLayer(std::make_shared<DataTypeStreamInfo>(10, 30.0), true);
    atom->AddDataLayer(kel_test::MakeTexture(4, 2, 1), true);
    atom->AddDataLayer(kel_test::MakeTexture(2, 2, 2, KEL::PurposeGuid_THUMBNAIL), true);
    atom->AddDataLayer(kel_test::MakeCamera(1, 1), true);
    atom->AddDataLayer(kel_test::MakeCamera(2, 2), true);
    return atom;
}

std::shared_ptr<DataTypeStreamInfo> Info(Atom& atom, bool detach) {
    return KEL::LayerCast<DataTypeStreamInfo>(atom.GetDataLayerByType(kInfo, detach));
}

}  // namespace

TEST(Atom, LookupsFindTheFirstMatchAndRemovalsRemoveExactlyWhatTheyName) {
    auto atom = AtomWithLayers();
    EXPECT_EQ(atom->GetDataLayerByType(kCamera, false)->GetVersion(), 1);
    auto thumb = atom->GetDataLayer(KEL::PurposeGuid_THUMBNAIL, kTexture, false);
    ASSERT_TRUE(KEL::LayerCast<DataTypeTextureRGBA>(thumb));
    EXPECT_EQ(KEL::LayerCast<DataTypeTextureRGBA>(thumb)->GetWidth(), 2U);
    EXPECT_FALSE(KEL::LayerCast<DataTypeStreamInfo>(thumb));
    EXPECT_FALSE(atom->GetDataLayer(KEL::PurposeGuid_CROP, kTexture, false));
    EXPECT_EQ(atom->RemoveDataLayers(KEL::PurposeGuid_THUMBNAIL, kTexture), 1U);
    EXPECT_EQ(atom->RemoveDataLayers(kCamera, [](const auto& l) { return l->GetVersion() < 2; }), 1U);
    EXPECT_EQ(atom->RemoveDataLayers(kInfo), 1U);
    EXPECT_EQ(atom->RemoveDataLayers(kInfo), 0U);
    const auto left = atom->GetAllDataLayers();
    ASSERT_EQ(left.size(), 2U);
    EXPECT_EQ(KEL::LayerCast<DataTypeTextureRGBA>(left[0])->GetWidth(), 4U);
    EXPECT_EQ(left[1]->GetVersion(), 2);
}

TEST(Atom, LookupWithoutDetachReturnsTheSharedObject) {
    auto atom = AtomWithLayers();
    auto copy = Atom::Copy(atom, -1, false);
    Info(*atom, false)->SetNumFrames(99);
    EXPECT_EQ(Info(*copy, false)->GetNumFrames(), 99U);
    Info(*copy, true)->SetNumFrames(5);
    EXPECT_EQ(Info(*atom, false)->GetNumFrames(), 99U);
    EXPECT_EQ(Info(*copy, false)->GetNumFrames(), 5U);
}

TEST(Atom, CopyKeepsTheIdentityAndNeverCopiesPayloadBytes) {
    auto atom = AtomWithLayers();
    const auto original = atom->GetDataLayerByType(kTexture, false);
    for (bool clone : {false, true}) {
        auto copy = Atom::Copy(atom, 5, clone);
        EXPECT_EQ(copy->GetFrameNr(), 5U);
        EXPECT_EQ(copy->GetId(), atom->GetId());
        std::string why;
        EXPECT_TRUE(kel_test::AtomsEqual(*Atom::Copy(copy, 17, false), *atom, &why)) << why;
        const auto texture = copy->GetDataLayerByType(kTexture, false);
        EXPECT_EQ(texture == original, !clone);
        EXPECT_TRUE(KEL::LayerCast<DataTypeTextureRGBA>(texture)->GetPixels().SharesStorageWith(
            KEL::LayerCast<DataTypeTextureRGBA>(original)->GetPixels()));
        // The layer list is the copy's own.
        copy->RemoveDataLayers(kTexture);
        EXPECT_EQ(atom->GetNumDataLayers(), 5U);
    }
    EXPECT_EQ(atom->GetFrameNr(), 17U);
    EXPECT_EQ(Atom::Copy(atom, -1, true)->GetFrameNr(), 17U);
    EXPECT_FALSE(Atom::Copy(nullptr, -1, true));
    EXPECT_NE(Atom().GetId(), atom->GetId());
}

TEST(Atom, AddWithoutSharingAddsACloneAndNothingForNull) {
    Atom atom;
    auto texture = kel_test::MakeTexture(2, 2, 9);
    atom.AddDataLayer(texture, false);
    atom.AddDataLayer(texture, true);
    atom.AddDataLayer(nullptr, true);
    const auto layers = atom.GetAllDataLayers();
    ASSERT_EQ(layers.size(), 2U);
    EXPECT_NE(layers[0], texture);
    EXPECT_TRUE(layers[0]->ContentEquals(*texture));
    EXPECT_EQ(layers[1], texture);
}
