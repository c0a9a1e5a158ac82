#include <KEL/DataTypeCylinderCrop.h>

namespace KEL {

const KelCommon::Guid& DataTypeCylinderCrop::TheTypeGuid() {
    static const KelCommon::Guid guid = KelCommon::Guid::FromHexString("9F62A1B7-C350-42DF-94B6-71A2D3C45567");
    return guid;
}

DataTypeCylinderCrop::DataTypeCylinderCrop(double cx, double cz, double r, double lo, double hi,
                                           const KelCommon::Guid& purpose)
    : DataLayerBase(TheTypeGuid(), purpose, 1), centerX(cx), centerZ(cz), radius(r), minY(lo), maxY(hi) {}

void DataTypeCylinderCrop::EncodeFields(LayerEncoder& encoder) const {
    encoder.PutF64(centerX);
    encoder.PutF64(centerZ);
    encoder.PutF64(radius);
    encoder.PutF64(minY);
    encoder.PutF64(maxY);
}

bool DataTypeCylinderCrop::DecodeFields(LayerDecoder& decoder) {
    centerX = decoder.GetF64();
    centerZ = decoder.GetF64();
    radius = decoder.GetF64();
    minY = decoder.GetF64();
    maxY = decoder.GetF64();
    return decoder.Ok();
}

}  // namespace KEL
