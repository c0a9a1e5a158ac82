#pragma once

#include <KEL/DataLayer.h>

#include <cstdint>
#include <string>

namespace KEL {

// Where and when a stream was recorded.
class KEL_API DataTypeRecordingInfo : public DataLayerBase<DataTypeRecordingInfo> {
public:
    static const KelCommon::Guid& TheTypeGuid();

    DataTypeRecordingInfo(std::int64_t startTimeUs = 0, std::string device = {}, std::string description = {},
                          const KelCommon::Guid& purpose = {});

    // Start of the recording, microseconds since the Unix epoch.
    std::int64_t GetStartTime() const noexcept { return startTimeUs_; }
    const std::string& GetDevice() const noexcept { return device_; }
    const std::string& GetDescription() const noexcept { return description_; }

    std::string TypeName() const override { return "RecordingInfo"; }
    void EncodeFields(LayerEncoder& encoder) const override;
    bool DecodeFields(LayerDecoder& decoder) override;

private:
    std::int64_t startTimeUs_;
    std::string device_;
    std::string description_;
};

}  // namespace KEL
