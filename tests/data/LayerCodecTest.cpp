#include <KEL/DataLayerRegistry.h>
#include <KEL/DataTypeBinary.h>
#include <KEL/DataTypeCylinderCrop.h>
#include <KEL/DataTypeRecordingInfo.h>
#include <KEL/DataTypeStaticInfo.h>
#include <KEL/PurposeGuids.h>
#include <gtest/gtest.h>

#include "support/TestSupport.h"

namespace {

std::shared_ptr<KEL::DataLayer> Decode(const KelCommon::Guid& type, const KEL::LayerEncoder& enc,
                                       std::vector<std::uint8_t> fields, const KelCommon::Guid& purpose = {},
                                       std::uint16_t version = 1) {
    return KEL::DataLayerRegistry::Instance().Decode(type, purpose, version, fields.data(), fields.size(), enc.Blobs());
}
template <typename T>
std::shared_ptr<KEL::DataLayer> Decode(const KEL::LayerEncoder& enc) {
    return Decode(T::TheTypeGuid(), enc, enc.Fields());
}

}  // namespace

// Every layer type, encoded and decoded, gives equal content; read short, at
// any length, or with a byte too many, it is refused rather than half-filled.
TEST(LayerCodec, EveryLayerTypeDecodesToEqualContentFromItsWholeEncodingOnly) {
    const std::vector<std::shared_ptr<KEL::DataLayer>> layers = {
        std::make_shared<KEL::DataTypeStreamInfo>(120, 29.97, "cam0", KEL::PurposeGuid_CAMERA_PRIMARY),
        std::make_shared<KEL::DataTypeRecordingInfo>(-5, "rig", "take with \"quotes\""),
        std::make_shared<KEL::DataTypeStaticInfo>(std::map<std::string, std::string>{{"a", "1"}, {"", ""}, {"k", "v"}}),
        std::make_shared<KEL::DataTypeBinary>("blob", kel_test::PatternBuffer(1000, 3)),
        kel_test::MakeCamera(1, 4),
        kel_test::MakeCamera(2, 5),
        std::make_shared<KEL::DataTypeCylinderCrop>(1, 2, 3, -4, 5.5),
        kel_test::MakeTexture(7, 3, 6, KEL::PurposeGuid_THUMBNAIL),
        kel_test::MakeTexture(0, 0, 6),
        kel_test::MakeMesh(10, 7),
        std::make_shared<KEL::DataTypeMesh>()};
    for (std::size_t i = 0; i < layers.size(); ++i) {
        const auto& layer = layers[i];
        KEL::LayerEncoder enc;
        layer->EncodeFields(enc);
        for (std::size_t size = 0; size <= enc.Fields().size() + 1; ++size) {
            auto fields = enc.Fields();
            fields.resize(size);
            auto back = Decode(layer->GetTypeGuid(), enc, fields, layer->GetPurposeGuid(), layer->GetVersion());
            EXPECT_EQ(back != nullptr, size == enc.Fields().size()) << layer->TypeName() << " read from " << size;
        }
        auto back = Decode(layer->GetTypeGuid(), enc, enc.Fields(), layer->GetPurposeGuid(), layer->GetVersion());
        ASSERT_TRUE(back) << layer->TypeName();
        EXPECT_EQ(back->TypeName(), layer->TypeName());
        EXPECT_TRUE(back->ContentEquals(*layer)) << layer->TypeName();
        EXPECT_EQ(back->PayloadSize(), layer->PayloadSize());
        // Equality must tell the samples apart, or the check above proves nothing.
        for (std::size_t j = 0; j < layers.size(); ++j) {
            EXPECT_EQ(layer->ContentEquals(*layers[j]), i == j) << i << " against " << j;
        }
    }
}

TEST(LayerCodec, UnknownTypesAreKeptVerbatim) {
    const auto unknownType = KelCommon::Guid::FromHexString("01234567-89AB-CDEF-0123-456789ABCDEF");
    KEL::LayerEncoder enc;
    enc.PutString("future");
    enc.PutBlob(kel_test::PatternBuffer(33, 1));
    auto layer = Decode(unknownType, enc, enc.Fields(), KEL::PurposeGuid_DUMMY1, 9);
    ASSERT_TRUE(layer);
    EXPECT_EQ(layer->TypeName(), "Unknown");
    EXPECT_EQ(layer->GetTypeGuid(), unknownType);
    EXPECT_EQ(layer->GetVersion(), 9);
    EXPECT_EQ(layer->PayloadSize(), 33U);
    KEL::LayerEncoder again;
    layer->EncodeFields(again);
    EXPECT_EQ(again.Fields(), enc.Fields());
    EXPECT_TRUE(again.Blobs().at(0).ContentEquals(enc.Blobs().at(0)));
}

TEST(LayerCodec, ContentThatContradictsItselfIsRefused) {
    KEL::LayerEncoder texture;  // pixel count disagrees with the size
    texture.PutU32(1000);
    texture.PutU32(1000);
    texture.PutBlob(kel_test::PatternBuffer(16, 1));
    EXPECT_FALSE(Decode<KEL::DataTypeTextureRGBA>(texture));
    KEL::LayerEncoder info;  // a string length near the top of 32 bits
    info.PutU32(1);
    info.PutF64(1.0);
    info.PutU32(0xFFFFFFF0U);
    EXPECT_FALSE(Decode<KEL::DataTypeStreamInfo>(info));
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
