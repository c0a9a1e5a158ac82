#pragma once

#include <KEL/DataLayer.h>

#include <array>
#include <cstdint>
#include <vector>

namespace KEL {

// A pinhole camera with distortion: intrinsics, distortion coefficients and
// the camera-to-world pose as a row-major 4x4 matrix.
//
// The layer version says how the values behave over time: versions 0 and 1
// describe a camera that is fixed for the whole stream; from version 2 on the
// values may change from frame to frame.
class KEL_API DataTypeCameraParams : public DataLayerBase<DataTypeCameraParams> {
public:
    static const KelCommon::Guid& TheTypeGuid();
    static constexpr std::uint16_t kCurrentVersion = 2;

    explicit DataTypeCameraParams(std::uint16_t version = kCurrentVersion, const KelCommon::Guid& purpose = {});

    std::uint32_t width = 0;
    std::uint32_t height = 0;
    double fx = 0.0;
    double fy = 0.0;
    double cx = 0.0;
    double cy = 0.0;
    std::vector<double> distortion;
    std::array<double, 16> pose{1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};

    std::string TypeName() const override { return "CameraParams"; }
    void EncodeFields(LayerEncoder& encoder) const override;
    bool DecodeFields(LayerDecoder& decoder) override;
};

}  // namespace KEL
