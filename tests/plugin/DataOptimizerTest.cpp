#include <KEL/DataTypeBinary.h>
#include <KEL/DataTypeCameraParams.h>
#include <KEL/DataTypeMesh.h>
#include <KEL/DataTypeStreamInfo.h>
#include <KEL/DataTypeTextureRGBA.h>
#include <KEL/PurposeGuids.h>
#include <gtest/gtest.h>

#include "optimization/DataOptimizer.h"
#include "support/TestSupport.h"

namespace {

using Kel2File::DataOptimizer;

std::size_t CountOfType(const KEL::Atom& atom, const KelCommon::Guid& type) {
    std::size_t count = 0;
    for (const auto& layer : atom.GetAllDataLayers()) {
        count += layer->GetTypeGuid() == type ? 1 : 0;
    }
    return count;
}

// Stream-level layers and layers that look like them: only `kept` (if any)
// survives.
TEST(DataOptimizer, OnlyStreamLevelLayersAreRemovedFromLookAlikes) {
    const auto cameraV2 = kel_test::MakeCamera(2, 7);
    const auto color = kel_test::MakeTexture(4, 4, 1, KEL::PurposeGuid_PRIMARY_COLOR);
    const auto thumbnailMesh = kel_test::MakeMesh(2, 3);
    thumbnailMesh->SetPurposeGuid(KEL::PurposeGuid_THUMBNAIL);
    const struct {
        const char* what;
        std::vector<std::shared_ptr<KEL::DataLayer>> layers;
        std::shared_ptr<KEL::DataLayer> kept;
    } cases[] = {
        {"camera parameters below version two", {kel_test::MakeCamera(1, 7), kel_test::MakeCamera(0, 8)}, nullptr},
        {"camera parameters of version two", {kel_test::MakeCamera(1, 7), cameraV2}, cameraV2},
        {"an RGBA texture of another purpose",
         {color, kel_test::MakeTexture(4, 4, 2, KEL::PurposeGuid_THUMBNAIL)},
         color},
        {"the thumbnail purpose on another type", {thumbnailMesh}, thumbnailMesh},
    };
    for (const auto& entry : cases) {
        SCOPED_TRACE(entry.what);
        auto atom = std::make_shared<KEL::Atom>(1, 5);
        for (const auto& layer : entry.layers) {
            atom->AddDataLayer(layer, true);
        }

        DataOptimizer::OptimizeAtomData(atom);

        EXPECT_EQ(atom->GetAllDataLayers(), entry.kept ? std::vector<std::shared_ptr<KEL::DataLayer>>{entry.kept}
                                                       : std::vector<std::shared_ptr<KEL::DataLayer>>{});
    }
}

TEST(DataOptimizer, TwoStreamInfoLayersAreBothRemoved) {
    auto atom = kel_test::MakeFrameAtom(1, 5);
    atom->AddDataLayer(std::make_shared<KEL::DataTypeStreamInfo>(10), true);
    atom->AddDataLayer(std::make_shared<KEL::DataTypeStreamInfo>(20), true);

    DataOptimizer::OptimizeAtomData(atom);

    EXPECT_EQ(CountOfType(*atom, KEL::DataTypeStreamInfo::TheTypeGuid()), 0U);
    EXPECT_EQ(atom->GetNumDataLayers(), 3U);
}

TEST(DataOptimizer, EveryStreamLevelKindIsRemovedAndFrameLayersStay) {
    auto atom = kel_test::MakeFirstAtom(3, 10);
    atom->AddDataLayer(kel_test::MakeTexture(4, 4, 1, KEL::PurposeGuid_THUMBNAIL), true);

    DataOptimizer::OptimizeAtomData(atom);

    const auto layers = atom->GetAllDataLayers();
    ASSERT_EQ(layers.size(), 2U);
    EXPECT_EQ(layers[0]->GetTypeGuid(), KEL::DataTypeTextureRGBA::TheTypeGuid());
    EXPECT_NE(layers[0]->GetPurposeGuid(), KEL::PurposeGuid_THUMBNAIL);
    EXPECT_EQ(layers[1]->GetTypeGuid(), KEL::DataTypeMesh::TheTypeGuid());
}

TEST(DataOptimizer, AtomWithoutStreamLevelLayersIsLeftAsItWas) {
    auto atom = kel_test::MakeFrameAtom(2, 9);
    const auto before = KEL::Atom::Copy(atom, -1, true);
    const auto layersBefore = atom->GetAllDataLayers();

    DataOptimizer::OptimizeAtomData(atom);

    std::string why;
    EXPECT_TRUE(kel_test::AtomsEqual(*before, *atom, &why)) << why;
    EXPECT_EQ(atom->GetAllDataLayers(), layersBefore);
}

TEST(DataOptimizer, EmptyAtomIsIgnored) { EXPECT_NO_THROW(DataOptimizer::OptimizeAtomData(nullptr)); }

}  // namespace
