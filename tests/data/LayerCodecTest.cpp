#include <KEL/DataLayerRegistry.h>
#include <KEL/DataTypeBinary.h>
#include <KEL/DataTypeCylinderCrop.h>
#include <KEL/DataTypeOpaque.h>
#include <KEL/DataTypeRecordingInfo.h>
#include <KEL/DataTypeStaticInfo.h>
#include <KEL/PurposeGuids.h>
#include <gtest/gtest.h>

#include "support/TestSupport.h"

namespace {

std::shared_ptr<KEL::DataLayer> RoundTrip(const KEL::DataLayer& layer) {
    KEL::LayerEncoder enc;
    layer.EncodeFields(enc);
    return KEL::DataLayerRegistry::Instance().Decode(layer.GetTypeGuid(), layer.GetPurposeGuid(), layer.GetVersion(),
                                                     enc.Fields().data(), enc.Fields().size(), enc.Blobs());
}

std::vector<std::shared_ptr<KEL::DataLayer>> EveryLayerType() {
    return {
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
        std::make_shared<KEL::DataTypeMesh>(),
    };
}

}  // namespace

TEST(LayerCodec, EveryLayerTypeDecodesToEqualContentSharingBlobs) {
    for (const auto& layer : EveryLayerType()) {
        auto back = RoundTrip(*layer);
        ASSERT_TRUE(back) << layer->TypeName();
        EXPECT_EQ(back->TypeName(), layer->TypeName());
        EXPECT_TRUE(back->ContentEquals(*layer)) << layer->TypeName();
        EXPECT_EQ(back->PayloadSize(), layer->PayloadSize());
    }
}

TEST(LayerCodec, ContentEqualsSeesEveryField) {
    auto a = kel_test::MakeCamera(2, 1);
    auto b = kel_test::MakeCamera(2, 1);
    EXPECT_TRUE(a->ContentEquals(*b));
    b->distortion.push_back(0.0);
    EXPECT_FALSE(a->ContentEquals(*b));
    auto c = kel_test::MakeCamera(1, 1);
    EXPECT_FALSE(a->ContentEquals(*c));
    EXPECT_FALSE(kel_test::MakeTexture(2, 2, 1)->ContentEquals(*kel_test::MakeTexture(2, 2, 2)));
}

TEST(LayerCodec, UnknownTypesAreKeptVerbatim) {
    const auto unknownType = KelCommon::Guid::FromHexString("01234567-89AB-CDEF-0123-456789ABCDEF");
    KEL::LayerEncoder enc;
    enc.PutString("future");
    enc.PutBlob(kel_test::PatternBuffer(33, 1));
    auto layer = KEL::DataLayerRegistry::Instance().Decode(unknownType, KEL::PurposeGuid_DUMMY1, 9, enc.Fields().data(),
                                                           enc.Fields().size(), enc.Blobs());
    ASSERT_TRUE(layer);
    EXPECT_EQ(layer->TypeName(), "Unknown");
    EXPECT_EQ(layer->GetTypeGuid(), unknownType);
    EXPECT_EQ(layer->GetVersion(), 9);
    EXPECT_EQ(layer->PayloadSize(), 33U);
    auto again = RoundTrip(*layer);
    ASSERT_TRUE(again);
    EXPECT_TRUE(again->ContentEquals(*layer));
}

TEST(LayerCodec, MalformedContentIsRefusedNotTrusted) {
    auto& registry = KEL::DataLayerRegistry::Instance();
    // A texture whose pixel count disagrees with its size.
    KEL::LayerEncoder tex;
    tex.PutU32(1000);
    tex.PutU32(1000);
    tex.PutBlob(kel_test::PatternBuffer(16, 1));
    EXPECT_FALSE(registry.Decode(KEL::DataTypeTextureRGBA::TheTypeGuid(), {}, 1, tex.Fields().data(),
                                 tex.Fields().size(), tex.Blobs()));
    // A string length far beyond the fields.
    KEL::LayerEncoder info;
    info.PutU32(1);
    info.PutF64(1.0);
    info.PutU32(0xFFFFFFF0U);
    EXPECT_FALSE(
        registry.Decode(KEL::DataTypeStreamInfo::TheTypeGuid(), {}, 1, info.Fields().data(), info.Fields().size(), {}));
    // A static-info entry count that the fields cannot hold.
    KEL::LayerEncoder stat;
    stat.PutU32(0x7FFFFFFFU);
    EXPECT_FALSE(
        registry.Decode(KEL::DataTypeStaticInfo::TheTypeGuid(), {}, 1, stat.Fields().data(), stat.Fields().size(), {}));
    // A blob index with no blob behind it.
    KEL::LayerEncoder bin;
    bin.PutString("x");
    bin.PutU32(5);
    EXPECT_FALSE(
        registry.Decode(KEL::DataTypeBinary::TheTypeGuid(), {}, 1, bin.Fields().data(), bin.Fields().size(), {}));
    // Trailing bytes after the content.
    KEL::LayerEncoder crop;
    KEL::DataTypeCylinderCrop(1, 2, 3, 4, 5).EncodeFields(crop);
    crop.PutU8(0);
    EXPECT_FALSE(registry.Decode(KEL::DataTypeCylinderCrop::TheTypeGuid(), {}, 1, crop.Fields().data(),
                                 crop.Fields().size(), {}));
    // A mesh whose index buffer is not whole triangles.
    KEL::LayerEncoder mesh;
    mesh.PutBlob(kel_test::PatternBuffer(12, 1));
    mesh.PutBlob(kel_test::PatternBuffer(5, 1));
    mesh.PutBlob({});
    EXPECT_FALSE(registry.Decode(KEL::DataTypeMesh::TheTypeGuid(), {}, 1, mesh.Fields().data(), mesh.Fields().size(),
                                 mesh.Blobs()));
}
