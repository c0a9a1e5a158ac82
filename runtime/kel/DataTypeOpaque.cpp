#include <KEL/DataTypeOpaque.h>

namespace KEL {

DataTypeOpaque::DataTypeOpaque(const KelCommon::Guid& typeGuid, const KelCommon::Guid& purpose, std::uint16_t version,
                               std::vector<std::uint8_t> fields, std::vector<KelCommon::SharedBuffer> blobs)
    : DataLayerBase(typeGuid, purpose, version), fields_(std::move(fields)), blobs_(std::move(blobs)) {}

void DataTypeOpaque::EncodeFields(LayerEncoder& encoder) const {
    encoder.PutRawFields(fields_);
    for (const auto& blob : blobs_) {
        encoder.AddRawBlob(blob);
    }
}

bool DataTypeOpaque::DecodeFields(LayerDecoder& /*decoder*/) {
    // Opaque layers are built whole by the registry; there is nothing to decode.
    return true;
}

std::uint64_t DataTypeOpaque::PayloadSize() const {
    std::uint64_t total = 0;
    for (const auto& blob : blobs_) {
        total += blob.size();
    }
    return total;
}

}  // namespace KEL
