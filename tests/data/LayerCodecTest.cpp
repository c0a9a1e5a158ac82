#include <KEL/DataLayerRegistry.h>
#include <KEL/DataTypeBinary.h>
#include <KEL/DataTypeOpaque.h>
#include <KEL/DataTypeStaticInfo.h>
#include <KEL/PurposeGuids.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "harness/AtomModel.h"
#include "support/TestSupport.h"

namespace {

using kel_harness::ModelAtom;

std::shared_ptr<KEL::DataLayer> Decode(const KEL::DataLayer& like, const KEL::LayerEncoder& enc,
                                       std::vector<std::uint8_t> fields) {
    return KEL::DataLayerRegistry::Instance().Decode(like.GetTypeGuid(), like.GetPurposeGuid(), like.GetVersion(),
                                                     fields.data(), fields.size(), enc.Blobs());
}
template <typename T>
std::shared_ptr<KEL::DataLayer> Decode(const KEL::LayerEncoder& enc) {
    return Decode(T(), enc, enc.Fields());
}
bool Holds(const KEL::Atom::LayerPtr& layer, const kel_harness::ModelLayer& model) {
    KEL::Atom atom;
    atom.AddDataLayer(layer, true);
    return !kel_harness::DifferenceFrom(ModelAtom{.layers = {model}}, atom);
}
// The model's layer with one thing changed: its purpose, its version, the
// first byte of a buffer or a value (when it has one).
std::vector<KEL::Atom::LayerPtr> Variants(const kel_harness::ModelLayer& model) {
    ModelAtom variants{.layers = {model, model, model, model}};
    variants.layers[0].purpose = model.purpose == KEL::PurposeGuid_CROP ? KelCommon::Guid{} : KEL::PurposeGuid_CROP;
    ++variants.layers[1].version;
    auto& blobs = variants.layers[2].blobs;
    if (const auto blob = std::ranges::find_if(blobs, [](const auto& b) { return !b.empty(); }); blob != blobs.end()) {
        (*blob)[0] ^= 1;
    }
    auto& value = variants.layers[3];
    if (!value.texts.empty()) {
        value.texts.back() += "x";
    } else if (!value.reals.empty()) {
        value.reals[0] = value.reals[0] == 1.0 ? 2.0 : 1.0;
    }
    return kel_harness::BuildAtom(variants)->GetAllDataLayers();
}

}  // namespace

// Generated layers of every kind, an unknown type among them, with random
// values: decoded from their encoding they hold the model's values. Read
// short, at any length, or with a byte too many, a known type is refused
// rather than half-filled (an unknown one is kept as it comes). Content
// equality agrees with the model, so the tests that rely on it prove something.
TEST(LayerCodec, GeneratedLayersDecodeToTheirModelFromTheirWholeEncodingOnly) {
    kel_harness::SeededEntropy entropy(41);
    for (const ModelAtom& model : kel_harness::GenerateAtoms(entropy, {.maxAtoms = 60, .largeBlobOneIn = 1000})) {
        const auto layers = kel_harness::BuildAtom(model)->GetAllDataLayers();
        auto decoded = std::make_shared<KEL::Atom>(model.stream, model.frame, model.timeStamp);
        for (std::size_t i = 0; i < layers.size(); ++i) {
            KEL::LayerEncoder enc;
            layers[i]->EncodeFields(enc);
            const bool known = !std::dynamic_pointer_cast<KEL::DataTypeOpaque>(layers[i]);
            for (std::size_t size = 0; size <= enc.Fields().size() + 1; ++size) {
                auto fields = enc.Fields();
                fields.resize(size);
                EXPECT_EQ(Decode(*layers[i], enc, fields) != nullptr, !known || size == enc.Fields().size())
                    << layers[i]->TypeName() << " read from " << size;
            }
            decoded->AddDataLayer(Decode(*layers[i], enc, enc.Fields()), true);
            for (const auto& variant : Variants(model.layers[i])) {
                EXPECT_EQ(layers[i]->ContentEquals(*variant), Holds(variant, model.layers[i])) << layers[i]->TypeName();
            }
        }
        EXPECT_EQ(kel_harness::DifferenceFrom(model, *decoded), std::nullopt);
    }
}

TEST(LayerCodec, ContentThatContradictsItselfIsRefused) {
    KEL::LayerEncoder texture;  // pixel count disagrees with the size
    texture.PutU32(1000);
    texture.PutU32(1000);
    texture.PutBlob(kel_test::PatternBuffer(16, 1));
    EXPECT_FALSE(Decode<KEL::DataTypeTextureRGBA>(texture));
    KEL::LayerEncoder entries;  // more static-info entries than the fields can hold
    entries.PutU32(0x7FFFFFFFU);
    EXPECT_FALSE(Decode<KEL::DataTypeStaticInfo>(entries));
    KEL::LayerEncoder binary;  // a blob index with no blob behind it
    binary.PutString("x");
    binary.PutU32(5);
    EXPECT_FALSE(Decode<KEL::DataTypeBinary>(binary));
    KEL::LayerEncoder mesh;  // an index buffer that is not whole triangles
    mesh.PutBlob(kel_test::PatternBuffer(12, 1));
    mesh.PutBlob(kel_test::PatternBuffer(5, 1));
    mesh.PutBlob({});
    EXPECT_FALSE(Decode<KEL::DataTypeMesh>(mesh));
}
