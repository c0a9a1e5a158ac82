#include <KEL/DataTypeBinary.h>

namespace KEL {

const KelCommon::Guid& DataTypeBinary::TheTypeGuid() {
    static const KelCommon::Guid guid = KelCommon::Guid::FromHexString("7D408F95-A13E-40BD-8294-5F80B1A23345");
    return guid;
}

DataTypeBinary::DataTypeBinary(std::string name, KelCommon::SharedBuffer data, const KelCommon::Guid& purpose)
    : DataLayerBase(TheTypeGuid(), purpose, 1), name_(std::move(name)), data_(std::move(data)) {}

void DataTypeBinary::EncodeFields(LayerEncoder& encoder) const {
    encoder.PutString(name_);
    encoder.PutBlob(data_);
}

bool DataTypeBinary::DecodeFields(LayerDecoder& decoder) {
    name_ = decoder.GetString();
    data_ = decoder.GetBlob();
    return decoder.Ok();
}

}  // namespace KEL
