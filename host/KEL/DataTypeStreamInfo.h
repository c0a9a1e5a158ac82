#pragma once

#include <KEL/DataLayer.h>

#include <cstdint>
#include <string>

namespace KEL {

// Describes a stream as a whole: how many frames it has, at what rate, and
// what it is called. Sources set the frame count from the file they play.
class KEL_API DataTypeStreamInfo : public DataLayerBase<DataTypeStreamInfo> {
public:
    static const KelCommon::Guid& TheTypeGuid();

    DataTypeStreamInfo(std::uint32_t numFrames = 0, double frameRate = 0.0, std::string name = {},
                       const KelCommon::Guid& purpose = {});

    std::uint32_t GetNumFrames() const noexcept { return numFrames_; }
    void SetNumFrames(std::uint32_t numFrames) noexcept { numFrames_ = numFrames; }
    double GetFrameRate() const noexcept { return frameRate_; }
    void SetFrameRate(double rate) noexcept { frameRate_ = rate; }
    const std::string& GetName() const noexcept { return name_; }
    void SetName(std::string name) { name_ = std::move(name); }

    std::string TypeName() const override { return "StreamInfo"; }
    void EncodeFields(LayerEncoder& encoder) const override;
    bool DecodeFields(LayerDecoder& decoder) override;

private:
    std::uint32_t numFrames_;
    double frameRate_;
    std::string name_;
};

}  // namespace KEL
