#include <KEL/Atom.h>
#include <KEL/DataTypeCameraParams.h>
#include <KEL/DataTypeStreamInfo.h>
#include <KEL/DataTypeTextureRGBA.h>
#include <KEL/Profile.h>
#include <KEL/PurposeGuids.h>
#include <gtest/gtest.h>

#include "support/TestSupport.h"

using KEL::Atom;
using KEL::DataTypeCameraParams;
using KEL::DataTypeStreamInfo;
using KEL::DataTypeTextureRGBA;

namespace {

std::shared_ptr<Atom> AtomWithLayers() {
    auto atom = std::make_shared<Atom>(3, 17, 1234);
    atom->AddDataLayer(std::make_shared<DataTypeStreamInfo>(10, 30.0), true);
    atom->AddDataLayer(kel_test::MakeTexture(4, 2, 1), true);
    atom->AddDataLayer(kel_test::MakeTexture(2, 2, 2, KEL::PurposeGuid_THUMBNAIL), true);
    atom->AddDataLayer(kel_test::MakeCamera(1, 1), true);
    atom->AddDataLayer(kel_test::MakeCamera(2, 2), true);
    return atom;
}

}  // namespace

TEST(Atom, LookupsFindTheFirstMatchingLayerInOrder) {
    auto atom = AtomWithLayers();
    auto byType = atom->GetDataLayerByType(DataTypeCameraParams::TheTypeGuid(), false);
    ASSERT_TRUE(byType);
    EXPECT_EQ(byType->GetVersion(), 1);
    auto thumb = atom->GetDataLayer(KEL::PurposeGuid_THUMBNAIL, DataTypeTextureRGBA::TheTypeGuid(), false);
    ASSERT_TRUE(thumb);
    EXPECT_EQ(KEL::LayerCast<DataTypeTextureRGBA>(thumb)->GetWidth(), 2U);
    EXPECT_FALSE(atom->GetDataLayer(KEL::PurposeGuid_CROP, DataTypeTextureRGBA::TheTypeGuid(), false));
    EXPECT_FALSE(KEL::LayerCast<DataTypeStreamInfo>(thumb));
}

TEST(Atom, LookupWithoutDetachReturnsTheSharedObject) {
    auto atom = AtomWithLayers();
    auto copy = Atom::Copy(atom, -1, false);
    auto info = KEL::LayerCast<DataTypeStreamInfo>(atom->GetDataLayerByType(DataTypeStreamInfo::TheTypeGuid(), false));
    info->SetNumFrames(99);
    auto seenByCopy =
        KEL::LayerCast<DataTypeStreamInfo>(copy->GetDataLayerByType(DataTypeStreamInfo::TheTypeGuid(), false));
    EXPECT_EQ(seenByCopy->GetNumFrames(), 99U);

    auto detached =
        KEL::LayerCast<DataTypeStreamInfo>(copy->GetDataLayerByType(DataTypeStreamInfo::TheTypeGuid(), true));
    detached->SetNumFrames(5);
    EXPECT_EQ(info->GetNumFrames(), 99U);
    EXPECT_EQ(KEL::LayerCast<DataTypeStreamInfo>(copy->GetDataLayerByType(DataTypeStreamInfo::TheTypeGuid(), false))
                  ->GetNumFrames(),
              5U);
}

TEST(Atom, TheThreeRemovalFormsRemoveExactlyWhatTheyName) {
    auto atom = AtomWithLayers();
    EXPECT_EQ(atom->RemoveDataLayers(KEL::PurposeGuid_THUMBNAIL, DataTypeTextureRGBA::TheTypeGuid()), 1U);
    EXPECT_TRUE(atom->GetDataLayerByType(DataTypeTextureRGBA::TheTypeGuid(), false));
    EXPECT_EQ(
        atom->RemoveDataLayers(DataTypeCameraParams::TheTypeGuid(),
                               [](const std::shared_ptr<const KEL::DataLayer>& l) { return l->GetVersion() < 2; }),
        1U);
    auto cam = atom->GetDataLayerByType(DataTypeCameraParams::TheTypeGuid(), false);
    ASSERT_TRUE(cam);
    EXPECT_EQ(cam->GetVersion(), 2);
    EXPECT_EQ(atom->RemoveDataLayers(DataTypeStreamInfo::TheTypeGuid()), 1U);
    EXPECT_EQ(atom->RemoveDataLayers(DataTypeStreamInfo::TheTypeGuid()), 0U);
    EXPECT_EQ(atom->GetNumDataLayers(), 2U);
}

TEST(Atom, CopyNeverCopiesPayloadBytes) {
    auto atom = AtomWithLayers();
    const auto original =
        KEL::LayerCast<DataTypeTextureRGBA>(atom->GetDataLayerByType(DataTypeTextureRGBA::TheTypeGuid(), false));
    for (bool clone : {false, true}) {
        auto copy = Atom::Copy(atom, 5, clone);
        EXPECT_EQ(copy->GetFrameNr(), 5U);
        EXPECT_EQ(atom->GetFrameNr(), 17U);
        EXPECT_EQ(copy->GetId(), atom->GetId());
        EXPECT_EQ(copy->GetStreamId(), 3);
        EXPECT_EQ(copy->GetTimeStamp(), 1234);
        auto tex =
            KEL::LayerCast<DataTypeTextureRGBA>(copy->GetDataLayerByType(DataTypeTextureRGBA::TheTypeGuid(), false));
        EXPECT_TRUE(tex->GetPixels().SharesStorageWith(original->GetPixels()));
        EXPECT_EQ(tex == original, !clone);
        std::string why;
        EXPECT_TRUE(kel_test::AtomsEqual(*Atom::Copy(copy, 17, false), *atom, &why)) << why;
        // The layer list is the copy's own.
        copy->RemoveDataLayers(DataTypeTextureRGBA::TheTypeGuid());
        EXPECT_EQ(atom->GetNumDataLayers(), 5U);
    }
    EXPECT_EQ(Atom::Copy(atom, -1, true)->GetFrameNr(), 17U);
    EXPECT_FALSE(Atom::Copy(nullptr, -1, true));
}

TEST(Atom, AddWithoutSharingAddsAClone) {
    Atom atom;
    auto tex = kel_test::MakeTexture(2, 2, 9);
    atom.AddDataLayer(tex, false);
    atom.AddDataLayer(tex, true);
    atom.AddDataLayer(nullptr, true);
    const auto layers = atom.GetAllDataLayers();
    ASSERT_EQ(layers.size(), 2U);
    EXPECT_NE(layers[0], tex);
    EXPECT_EQ(layers[1], tex);
    EXPECT_TRUE(layers[0]->ContentEquals(*tex));
}

TEST(Atom, NewAtomsGetDistinctIds) {
    Atom a;
    Atom b;
    EXPECT_NE(a.GetId(), b.GetId());
}

TEST(Profile, DescribesComparesTypeAndPurposeBothWays) {
    auto atom = AtomWithLayers();
    auto full = std::make_shared<KEL::Profile>();
    for (const auto& l : atom->GetAllDataLayers()) {
        full->Add(l->GetDataProfile());
    }
    auto partial = std::make_shared<KEL::Profile>();
    partial->Add(std::make_shared<KEL::DataProfile>(DataTypeStreamInfo::TheTypeGuid(), KelCommon::Guid()));
    EXPECT_TRUE(full->Describes(partial));
    EXPECT_FALSE(partial->Describes(full));
    EXPECT_TRUE(full->Describes(std::make_shared<KEL::Profile>()));
    EXPECT_FALSE(full->Describes(nullptr));
    auto copy = std::make_shared<KEL::Profile>(*full);
    EXPECT_TRUE(copy->Describes(full));
    EXPECT_TRUE(full->Describes(copy));
}
