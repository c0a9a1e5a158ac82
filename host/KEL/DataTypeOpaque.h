#pragma once

#include <KEL/DataLayer.h>
#include <KelCommon/SharedBuffer.h>

#include <vector>

namespace KEL {

// A layer of a data type that this host does not know. The container reader
// keeps such layers as they were stored (fields and blobs untouched), so a
// file passes through a graph without losing data that a newer writer added.
class KEL_API DataTypeOpaque : public DataLayerBase<DataTypeOpaque> {
public:
    DataTypeOpaque(const KelCommon::Guid& typeGuid, const KelCommon::Guid& purpose, std::uint16_t version,
                   std::vector<std::uint8_t> fields, std::vector<KelCommon::SharedBuffer> blobs);

    // The layer's encoded fields and its blobs, exactly as they were stored.
    const std::vector<std::uint8_t>& GetFields() const noexcept { return fields_; }
    const std::vector<KelCommon::SharedBuffer>& GetBlobs() const noexcept { return blobs_; }
    std::string TypeName() const override { return "Unknown"; }
    void EncodeFields(LayerEncoder& encoder) const override;
    bool DecodeFields(LayerDecoder& decoder) override;
    std::uint64_t PayloadSize() const override;

private:
    std::vector<std::uint8_t> fields_;
    std::vector<KelCommon::SharedBuffer> blobs_;
};

}  // namespace KEL
