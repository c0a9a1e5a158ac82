// How atoms share layers and payloads. Lookups and removals by type, purpose
// and version and null additions are checked by the optimizer and loosener's
// generated test, which edits varied atoms through them against a model.

#include <gtest/gtest.h>

#include "support/TestSupport.h"

using KEL::Atom;
using KEL::DataTypeStreamInfo;
using KEL::DataTypeTextureRGBA;

namespace {

std::shared_ptr<DataTypeStreamInfo> Info(Atom& atom, bool detach) {
    return KEL::LayerCast<DataTypeStreamInfo>(atom.GetDataLayerByType(DataTypeStreamInfo::TheTypeGuid(), detach));
}

}  // namespace

// Copies share their layers until a lookup detaches one; neither sharing nor
// cloning copies payload bytes; a layer added without sharing goes in as a clone.
TEST(Atom, CopyKeepsTheIdentitySharesLayersUntilDetachedAndNeverCopiesPayloadBytes) {
    auto atom = Atom::Copy(kel_test::MakeFirstAtom(3, 10), 17, false);
    atom->AddDataLayer(std::make_shared<DataTypeStreamInfo>(7, 25.0), true);
    ASSERT_EQ(Info(*atom, false)->GetNumFrames(), 10U);  // lookups find the first
    const auto texture = atom->GetDataLayerByType(DataTypeTextureRGBA::TheTypeGuid(), false);
    for (bool clone : {false, true}) {
        auto copy = Atom::Copy(atom, 5, clone);
        EXPECT_EQ(copy->GetFrameNr(), 5U);
        EXPECT_EQ(copy->GetId(), atom->GetId());
        std::string why;
        EXPECT_TRUE(kel_test::AtomsEqual(*Atom::Copy(copy, 17, false), *atom, &why)) << why;
        const auto copied = copy->GetDataLayerByType(DataTypeTextureRGBA::TheTypeGuid(), false);
        EXPECT_EQ(copied == texture, !clone);
        EXPECT_TRUE(KEL::LayerCast<DataTypeTextureRGBA>(copied)->GetPixels().SharesStorageWith(
            KEL::LayerCast<DataTypeTextureRGBA>(texture)->GetPixels()));
        Info(*atom, false)->SetNumFrames(99);
        EXPECT_EQ(Info(*copy, false)->GetNumFrames(), clone ? 10U : 99U);
        Info(*copy, true)->SetNumFrames(5);
        EXPECT_EQ(Info(*atom, false)->GetNumFrames(), 99U);
        EXPECT_EQ(Info(*copy, false)->GetNumFrames(), 5U);
        Info(*atom, false)->SetNumFrames(10);
        copy->RemoveDataLayers(DataTypeTextureRGBA::TheTypeGuid());  // the layer list is the copy's own
        EXPECT_EQ(atom->GetAllDataLayers().size(), copy->GetAllDataLayers().size() + 1);
    }
    EXPECT_EQ(Atom::Copy(atom, -1, true)->GetFrameNr(), 17U);
    EXPECT_FALSE(Atom::Copy(nullptr, -1, true));
    EXPECT_NE(Atom().GetId(), atom->GetId());
    Atom fresh;
    fresh.AddDataLayer(texture, false);
    fresh.AddDataLayer(texture, true);
    const auto layers = fresh.GetAllDataLayers();
    ASSERT_EQ(layers.size(), 2U);
    EXPECT_NE(layers[0], texture);
    EXPECT_TRUE(layers[0]->ContentEquals(*texture));
    EXPECT_EQ(layers[1], texture);
}
