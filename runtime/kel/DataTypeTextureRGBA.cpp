#include <KEL/DataTypeTextureRGBA.h>

namespace KEL {

const KelCommon::Guid& DataTypeTextureRGBA::TheTypeGuid() {
    static const KelCommon::Guid guid = KelCommon::Guid::FromHexString("A073B2C8-D461-43E0-A5C7-82B3E4D56678");
    return guid;
}

DataTypeTextureRGBA::DataTypeTextureRGBA(std::uint32_t width, std::uint32_t height, KelCommon::SharedBuffer pixels,
                                         const KelCommon::Guid& purpose)
    : DataLayerBase(TheTypeGuid(), purpose, 1), width_(width), height_(height), pixels_(std::move(pixels)) {}

void DataTypeTextureRGBA::EncodeFields(LayerEncoder& encoder) const {
    encoder.PutU32(width_);
    encoder.PutU32(height_);
    encoder.PutBlob(pixels_, BlobKind::kPixelsRGBA8);
}

bool DataTypeTextureRGBA::DecodeFields(LayerDecoder& decoder) {
    width_ = decoder.GetU32();
    height_ = decoder.GetU32();
    pixels_ = decoder.GetBlob();
    if (decoder.Ok() && static_cast<std::uint64_t>(width_) * height_ * 4 != pixels_.size()) {
        decoder.Fail();
    }
    return decoder.Ok();
}

}  // namespace KEL
