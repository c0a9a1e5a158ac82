#include <KEL/DataTypeStaticInfo.h>

namespace KEL {

const KelCommon::Guid& DataTypeStaticInfo::TheTypeGuid() {
    static const KelCommon::Guid guid = KelCommon::Guid::FromHexString("6C3F7E84-902D-4FAC-B183-4E7FA0912234");
    return guid;
}

DataTypeStaticInfo::DataTypeStaticInfo(std::map<std::string, std::string> entries, const KelCommon::Guid& purpose)
    : DataLayerBase(TheTypeGuid(), purpose, 1), entries_(std::move(entries)) {}

void DataTypeStaticInfo::EncodeFields(LayerEncoder& encoder) const {
    encoder.PutU32(static_cast<std::uint32_t>(entries_.size()));
    for (const auto& [key, value] : entries_) {
        encoder.PutString(key);
        encoder.PutString(value);
    }
}

bool DataTypeStaticInfo::DecodeFields(LayerDecoder& decoder) {
    entries_.clear();
    const std::uint32_t count = decoder.GetU32();
    // Each entry takes at least two length fields: a count beyond that is
    // damage, refused before looping over it.
    if (count > decoder.Remaining() / 8) {
        decoder.Fail();
        return false;
    }
    for (std::uint32_t i = 0; i < count && decoder.Ok(); ++i) {
        std::string key = decoder.GetString();
        entries_[key] = decoder.GetString();
    }
    return decoder.Ok();
}

}  // namespace KEL
