#pragma once

#include <KEL/DataLayer.h>
#include <KelCommon/SharedBuffer.h>

#include <string>

namespace KEL {

// An opaque attachment (a calibration file, a settings blob) with a name.
class KEL_API DataTypeBinary : public DataLayerBase<DataTypeBinary> {
public:
    static const KelCommon::Guid& TheTypeGuid();

    explicit DataTypeBinary(std::string name = {}, KelCommon::SharedBuffer data = {},
                            const KelCommon::Guid& purpose = {});

    const std::string& GetName() const noexcept { return name_; }
    const KelCommon::SharedBuffer& GetData() const noexcept { return data_; }

    std::string TypeName() const override { return "Binary"; }
    void EncodeFields(LayerEncoder& encoder) const override;
    bool DecodeFields(LayerDecoder& decoder) override;
    std::uint64_t PayloadSize() const override { return data_.size(); }

private:
    std::string name_;
    KelCommon::SharedBuffer data_;
};

}  // namespace KEL
