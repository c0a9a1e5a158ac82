#include <KEL/DataTypeBinary.h>
#include <KEL/DataTypeCylinderCrop.h>
#include <KEL/DataTypeRecordingInfo.h>
#include <KEL/DataTypeStaticInfo.h>
#include <KEL/DataTypeStreamInfo.h>
#include <KEL/PurposeGuids.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <random>

#include "optimization/DataOptimizer.h"
#include "optimization/OptimizedDataLoosener.h"
#include "support/TestSupport.h"

namespace {

using Kel2File::DataOptimizer;
using Layer = std::shared_ptr<KEL::DataLayer>;
using Layers = std::vector<Layer>;
using Entries = std::map<std::string, std::string>;

// The kinds of layer a captured atom can carry, with whether they describe
// the stream (stripped from later atoms when written) or the frame. The
// frame kinds include look-alikes: an RGBA texture of another purpose, a mesh
// with the thumbnail purpose.
const std::vector<std::pair<bool, std::function<Layer(std::uint32_t)>>> kKinds = {
    {true, [](std::uint32_t) { return std::make_shared<KEL::DataTypeRecordingInfo>(1, "rig", "take"); }},
    {true, [](std::uint32_t s) { return std::make_shared<KEL::DataTypeBinary>("b", kel_test::PatternBuffer(8, s)); }},
    {true,
     [](std::uint32_t s) {
         return std::make_shared<KEL::DataTypeStaticInfo>(Entries{{"k", std::to_string(s)}});
     }},
    {true, [](std::uint32_t s) { return std::make_shared<KEL::DataTypeCylinderCrop>(s, 0, 1, 0, 2); }},
    {true, [](std::uint32_t s) { return kel_test::MakeTexture(4, 4, s, KEL::PurposeGuid_THUMBNAIL); }},
    {false, [](std::uint32_t s) { return kel_test::MakeTexture(4, 4, s, KEL::PurposeGuid_PRIMARY_COLOR); }},
    {false, [](std::uint32_t s) { return kel_test::MakeMesh(2, s); }},
    {false,
     [](std::uint32_t s) {
         auto mesh = kel_test::MakeMesh(1, s);
         mesh->SetPurposeGuid(KEL::PurposeGuid_THUMBNAIL);
         return mesh;
     }},
};

bool IsStreamInfo(const Layer& layer) { return layer->GetTypeGuid() == KEL::DataTypeStreamInfo::TheTypeGuid(); }

// A generated stream: a random choice of stream-level layers shared by all
// its atoms (as a live source delivers them), none, one or two stream
// information layers, and a camera of version 0 or 1 shared by the stream,
// of version 2 per atom, or none.
struct GeneratedStream {
    explicit GeneratedStream(std::uint32_t seed) : random(seed), cameraVersion(random() % 4) {
        for (const auto& [streamLevel, make] : kKinds) {
            if (streamLevel && Coin()) {
                Share(make);
            }
        }
        if (cameraVersion < 2) {
            const auto version = static_cast<std::uint16_t>(cameraVersion);
            Share([version](std::uint32_t s) { return kel_test::MakeCamera(version, s); });
        }
        for (auto n = random() % 3; n > 0; --n) {
            Share([](std::uint32_t s) { return std::make_shared<KEL::DataTypeStreamInfo>(s % 100); });
        }
    }
    void Share(const std::function<Layer(std::uint32_t)>& make) {
        makers.push_back(make);
        shared.push_back(make(random()));
    }
    bool Coin() { return random() % 2 == 0; }
    // An atom of the stream: the shared layers plus frame layers of its own, shuffled.
    std::shared_ptr<KEL::Atom> Atom(std::uint32_t frame) {
        Layers layers = shared;
        for (const auto& [streamLevel, make] : kKinds) {
            if (!streamLevel && Coin()) {
                layers.push_back(make(random()));
            }
        }
        if (cameraVersion == 2) {
            layers.push_back(kel_test::MakeCamera(2, random()));
        }
        std::shuffle(layers.begin(), layers.end(), random);
        auto atom = std::make_shared<KEL::Atom>(1, frame, frame);
        for (const auto& layer : layers) {
            atom->AddDataLayer(layer, true);
        }
        return atom;
    }

    std::mt19937 random;
    std::uint32_t cameraVersion;  // 3: no camera
    Layers shared;
    std::vector<std::function<Layer(std::uint32_t)>> makers;  // of each shared layer's kind
};

Layers Sorted(Layers layers) {
    std::ranges::sort(layers);
    return layers;
}

// Generated streams: the optimizer strips exactly the stream-level layers
// (keeping the others in order). Loosening gives the source's stream
// information in place of an atom's own, keeps the other stream-level layers
// the atom carries and adds the first atom's of the kinds it lacks: an
// optimized later atom, whatever own layers it got back, and the first atom
// itself come out as captured.
TEST(OptimizerAndLoosener, OptimizeThenLoosenGivesBackTheCapturedAtom) {
    for (std::uint32_t seed = 0; seed < 200; ++seed) {
        SCOPED_TRACE(seed);
        GeneratedStream stream(seed);
        const auto first = stream.Atom(0);
        const auto later = stream.Atom(1 + seed);
        const Layer cached = std::make_shared<KEL::DataTypeStreamInfo>(seed, 25.0, "source");
        const Kel2File::OptimizedDataLoosener loosener(first, cached);

        auto atom = KEL::Atom::Copy(later, -1, false);
        DataOptimizer::OptimizeAtomData(atom);
        Layers expected = later->GetAllDataLayers();
        std::erase_if(expected, [&](const Layer& layer) { return std::ranges::count(stream.shared, layer) != 0; });
        ASSERT_EQ(atom->GetAllDataLayers(), expected);
        for (std::size_t i = 0; i < stream.shared.size(); ++i) {
            const Layer own = stream.Coin() ? stream.makers[i](seed) : nullptr;
            atom->AddDataLayer(own, true);
            if (!IsStreamInfo(stream.shared[i])) {
                expected.push_back(own ? own : stream.shared[i]);
            }
        }
        expected.push_back(cached);
        loosener.LoosenOptimizedDataToAtom(atom);
        EXPECT_EQ(Sorted(atom->GetAllDataLayers()), Sorted(expected));

        // The first atom keeps its own layers but the stream information.
        const auto firstCopy = KEL::Atom::Copy(first, -1, false);
        loosener.LoosenOptimizedDataToAtom(firstCopy);
        expected = first->GetAllDataLayers();
        std::erase_if(expected, IsStreamInfo);
        expected.push_back(cached);
        EXPECT_EQ(Sorted(firstCopy->GetAllDataLayers()), Sorted(expected));
    }
}

}  // namespace
