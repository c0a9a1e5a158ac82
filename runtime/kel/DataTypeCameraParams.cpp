#include <KEL/DataTypeCameraParams.h>

namespace KEL {

const KelCommon::Guid& DataTypeCameraParams::TheTypeGuid() {
    static const KelCommon::Guid guid = KelCommon::Guid::FromHexString("8E5190A6-B24F-41CE-83A5-6091C2B34456");
    return guid;
}

DataTypeCameraParams::DataTypeCameraParams(std::uint16_t version, const KelCommon::Guid& purpose)
    : DataLayerBase(TheTypeGuid(), purpose, version) {}

void DataTypeCameraParams::EncodeFields(LayerEncoder& encoder) const {
    encoder.PutU32(width);
    encoder.PutU32(height);
    encoder.PutF64(fx);
    encoder.PutF64(fy);
    encoder.PutF64(cx);
    encoder.PutF64(cy);
    encoder.PutU32(static_cast<std::uint32_t>(distortion.size()));
    for (double d : distortion) {
        encoder.PutF64(d);
    }
    for (double p : pose) {
        encoder.PutF64(p);
    }
}

bool DataTypeCameraParams::DecodeFields(LayerDecoder& decoder) {
    width = decoder.GetU32();
    height = decoder.GetU32();
    fx = decoder.GetF64();
    fy = decoder.GetF64();
    cx = decoder.GetF64();
    cy = decoder.GetF64();
    const std::uint32_t n = decoder.GetU32();
    if (n > decoder.Remaining() / 8) {
        decoder.Fail();
        return false;
    }
    distortion.assign(n, 0.0);
    for (auto& d : distortion) {
        d = decoder.GetF64();
    }
    for (auto& p : pose) {
        p = decoder.GetF64();
    }
    return decoder.Ok();
}

}  // namespace KEL
