#include <KEL/DataTypeStaticInfo.h>
#include <KEL/DataTypeStreamInfo.h>
#include <KEL/DataTypeTextureRGBA.h>
#include <KEL/PurposeGuids.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "optimization/DataOptimizer.h"
#include "optimization/OptimizedDataLoosener.h"
#include "support/TestSupport.h"

namespace {

using Kel2File::DataOptimizer;
using Kel2File::OptimizedDataLoosener;

std::vector<std::shared_ptr<KEL::DataLayer>> LayersOfType(const KEL::Atom& atom, const KelCommon::Guid& type) {
    std::vector<std::shared_ptr<KEL::DataLayer>> layers;
    for (const auto& layer : atom.GetAllDataLayers()) {
        if (layer->GetTypeGuid() == type) {
            layers.push_back(layer);
        }
    }
    return layers;
}

std::vector<std::string> Sorted(std::vector<std::string> kinds) {
    std::sort(kinds.begin(), kinds.end());
    return kinds;
}

class OptimizedDataLoosenerTest : public ::testing::Test {
protected:
    std::shared_ptr<KEL::Atom> first_ = kel_test::MakeFirstAtom(4, 30);
    std::shared_ptr<KEL::DataLayer> streamInfo_ = std::make_shared<KEL::DataTypeStreamInfo>(123, 25.0, "cached");
    OptimizedDataLoosener loosener_{first_, streamInfo_};
};

// A later atom with some layers of its own: after loosening it holds exactly
// one layer of the type, its own where it has one, else the first atom's
// (the cached one for stream information).
TEST_F(OptimizedDataLoosenerTest, LaterAtomEndsWithExactlyOneLayerOfEachRestoredType) {
    using Layers = std::vector<std::shared_ptr<KEL::DataLayer>>;
    const auto ownStatic =
        std::make_shared<KEL::DataTypeStaticInfo>(std::map<std::string, std::string>{{"rig", "own"}});
    const auto staticType = KEL::DataTypeStaticInfo::TheTypeGuid();
    const auto streamInfoType = KEL::DataTypeStreamInfo::TheTypeGuid();
    const struct {
        const char* what;
        Layers own;
        KelCommon::Guid type;
        std::shared_ptr<KEL::DataLayer> expected;  // empty: the atom's own camera parameters
    } cases[] = {
        {"its own static information is kept", {ownStatic}, staticType, ownStatic},
        {"missing static information is the first atom's object",
         {},
         staticType,
         first_->GetDataLayerByType(staticType, false)},
        {"two stream information layers leave the cached one",
         {std::make_shared<KEL::DataTypeStreamInfo>(1), std::make_shared<KEL::DataTypeStreamInfo>(2)},
         streamInfoType,
         streamInfo_},
        {"missing stream information is the cached one", {}, streamInfoType, streamInfo_},
        {"version two camera parameters are not replaced", {}, KEL::DataTypeCameraParams::TheTypeGuid(), nullptr},
    };
    for (const auto& entry : cases) {
        SCOPED_TRACE(entry.what);
        auto atom = kel_test::MakeFrameAtom(4, 3);
        for (const auto& layer : entry.own) {
            atom->AddDataLayer(layer, true);
        }
        const auto expected = entry.expected ? entry.expected : atom->GetDataLayerByType(entry.type, false);

        loosener_.LoosenOptimizedDataToAtom(atom);

        const auto layers = LayersOfType(*atom, entry.type);
        ASSERT_EQ(layers.size(), 1U);
        EXPECT_EQ(layers[0], expected);
    }
}

TEST_F(OptimizedDataLoosenerTest, NoThumbnailInFirstAtomMeansNoneIsAdded) {
    auto atom = kel_test::MakeFrameAtom(4, 3);

    loosener_.LoosenOptimizedDataToAtom(atom);

    EXPECT_EQ(atom->GetDataLayer(KEL::PurposeGuid_THUMBNAIL, KEL::DataTypeTextureRGBA::TheTypeGuid(), false), nullptr);
}

TEST_F(OptimizedDataLoosenerTest, FirstAtomsThumbnailIsAddedToAtomsWithout) {
    auto thumbnail = kel_test::MakeTexture(4, 4, 9, KEL::PurposeGuid_THUMBNAIL);
    first_->AddDataLayer(thumbnail, true);
    const OptimizedDataLoosener withThumbnail(first_, streamInfo_);
    auto atom = kel_test::MakeFrameAtom(4, 3);

    withThumbnail.LoosenOptimizedDataToAtom(atom);

    EXPECT_EQ(atom->GetDataLayer(KEL::PurposeGuid_THUMBNAIL, KEL::DataTypeTextureRGBA::TheTypeGuid(), false),
              thumbnail);
}

TEST_F(OptimizedDataLoosenerTest, LooseningTheFirstAtomOnlyReplacesItsStreamInfo) {
    const auto before = first_->GetAllDataLayers();

    loosener_.LoosenOptimizedDataToAtom(first_);

    const auto after = first_->GetAllDataLayers();
    ASSERT_EQ(after.size(), before.size());
    std::vector<std::shared_ptr<KEL::DataLayer>> expected;
    for (const auto& layer : before) {
        if (layer->GetTypeGuid() != KEL::DataTypeStreamInfo::TheTypeGuid()) {
            expected.push_back(layer);
        }
    }
    expected.push_back(streamInfo_);
    EXPECT_EQ(after, expected);
}

TEST_F(OptimizedDataLoosenerTest, OptimizeThenLoosenRestoresTheFirstAtomsLayers) {
    // A later atom as a live source delivers it: the same stream-level layers
    // as the first atom, with its own frame layers.
    auto later = kel_test::MakeFirstAtom(4, 30);
    later->SetFrameNr(12);
    const auto expectedKinds = Sorted(kel_test::LayerKinds(*later));

    DataOptimizer::OptimizeAtomData(later);
    ASSERT_LT(later->GetNumDataLayers(), first_->GetNumDataLayers());
    loosener_.LoosenOptimizedDataToAtom(later);

    EXPECT_EQ(Sorted(kel_test::LayerKinds(*later)), expectedKinds);
    for (const auto& layer : later->GetAllDataLayers()) {
        const auto& type = layer->GetTypeGuid();
        if (type == KEL::DataTypeStreamInfo::TheTypeGuid()) {
            EXPECT_EQ(layer, streamInfo_);
        } else if (type != KEL::DataTypeTextureRGBA::TheTypeGuid() && type != KEL::DataTypeMesh::TheTypeGuid()) {
            EXPECT_EQ(layer, first_->GetDataLayerByType(type, false)) << layer->TypeName();
        }
    }
}

TEST_F(OptimizedDataLoosenerTest, EmptyAtomIsIgnored) { EXPECT_NO_THROW(loosener_.LoosenOptimizedDataToAtom(nullptr)); }

}  // namespace
