#include <KEL/DataTypeRecordingInfo.h>

namespace KEL {

const KelCommon::Guid& DataTypeRecordingInfo::TheTypeGuid() {
    static const KelCommon::Guid guid = KelCommon::Guid::FromHexString("5B2E6D73-8F1C-4E9B-A072-3D6E9F801123");
    return guid;
}

DataTypeRecordingInfo::DataTypeRecordingInfo(std::int64_t startTimeUs, std::string device, std::string description,
                                             const KelCommon::Guid& purpose)
    : DataLayerBase(TheTypeGuid(), purpose, 1),
      startTimeUs_(startTimeUs),
      device_(std::move(device)),
      description_(std::move(description)) {}

void DataTypeRecordingInfo::EncodeFields(LayerEncoder& encoder) const {
    encoder.PutI64(startTimeUs_);
    encoder.PutString(device_);
    encoder.PutString(description_);
}

bool DataTypeRecordingInfo::DecodeFields(LayerDecoder& decoder) {
    startTimeUs_ = decoder.GetI64();
    device_ = decoder.GetString();
    description_ = decoder.GetString();
    return decoder.Ok();
}

}  // namespace KEL
