#pragma once

#include <KEL/DataLayer.h>

namespace KEL {

// A vertical cylinder that bounds the capture volume: data outside it is
// cropped away. Units are metres in the capture's world frame.
class KEL_API DataTypeCylinderCrop : public DataLayerBase<DataTypeCylinderCrop> {
public:
    static const KelCommon::Guid& TheTypeGuid();

    DataTypeCylinderCrop(double centerX = 0, double centerZ = 0, double radius = 0, double minY = 0, double maxY = 0,
                         const KelCommon::Guid& purpose = {});

    double centerX;
    double centerZ;
    double radius;
    double minY;
    double maxY;

    std::string TypeName() const override { return "CylinderCrop"; }
    void EncodeFields(LayerEncoder& encoder) const override;
    bool DecodeFields(LayerDecoder& decoder) override;
};

}  // namespace KEL
