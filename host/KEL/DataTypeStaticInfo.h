#pragma once

#include <KEL/DataLayer.h>

#include <map>
#include <string>

namespace KEL {

// Constant facts about a stream as key/value text (rig name, calibration id...).
class KEL_API DataTypeStaticInfo : public DataLayerBase<DataTypeStaticInfo> {
public:
    static const KelCommon::Guid& TheTypeGuid();

    explicit DataTypeStaticInfo(std::map<std::string, std::string> entries = {}, const KelCommon::Guid& purpose = {});

    const std::map<std::string, std::string>& GetEntries() const noexcept { return entries_; }
    void Set(const std::string& key, const std::string& value) { entries_[key] = value; }

    std::string TypeName() const override { return "StaticInfo"; }
    void EncodeFields(LayerEncoder& encoder) const override;
    bool DecodeFields(LayerDecoder& decoder) override;

private:
    std::map<std::string, std::string> entries_;
};

}  // namespace KEL
