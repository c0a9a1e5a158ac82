#include <KEL/DataTypeStreamInfo.h>

namespace KEL {

const KelCommon::Guid& DataTypeStreamInfo::TheTypeGuid() {
    static const KelCommon::Guid guid = KelCommon::Guid::FromHexString("3A1F4C52-7E0B-4D8A-9B61-2C5D8E7F9012");
    return guid;
}

DataTypeStreamInfo::DataTypeStreamInfo(std::uint32_t numFrames, double frameRate, std::string name,
                                       const KelCommon::Guid& purpose)
    : DataLayerBase(TheTypeGuid(), purpose, 1), numFrames_(numFrames), frameRate_(frameRate), name_(std::move(name)) {}

void DataTypeStreamInfo::EncodeFields(LayerEncoder& encoder) const {
    encoder.PutU32(numFrames_);
    encoder.PutF64(frameRate_);
    encoder.PutString(name_);
}

bool DataTypeStreamInfo::DecodeFields(LayerDecoder& decoder) {
    numFrames_ = decoder.GetU32();
    frameRate_ = decoder.GetF64();
    name_ = decoder.GetString();
    return decoder.Ok();
}

}  // namespace KEL
