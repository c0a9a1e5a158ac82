#include "optimization/OptimizedDataLoosener.h"

#include <KEL/DataTypeBinary.h>
#include <KEL/DataTypeCameraParams.h>
#include <KEL/DataTypeCylinderCrop.h>
#include <KEL/DataTypeRecordingInfo.h>
#include <KEL/DataTypeStaticInfo.h>
#include <KEL/DataTypeStreamInfo.h>
#include <KEL/DataTypeTextureRGBA.h>
#include <KEL/PurposeGuids.h>

#include <utility>

namespace Kel2File {

OptimizedDataLoosener::OptimizedDataLoosener(std::shared_ptr<KEL::Atom> firstAtom,
                                             std::shared_ptr<KEL::DataLayer> streamInfoLayer)
    : streamInfo(std::move(streamInfoLayer)) {
    if (!firstAtom) {
        return;
    }
    cameraParams = firstAtom->GetDataLayerByType(KEL::DataTypeCameraParams::TheTypeGuid(), false);
    recordingInfo = firstAtom->GetDataLayerByType(KEL::DataTypeRecordingInfo::TheTypeGuid(), false);
    binary = firstAtom->GetDataLayerByType(KEL::DataTypeBinary::TheTypeGuid(), false);
    staticInfo = firstAtom->GetDataLayerByType(KEL::DataTypeStaticInfo::TheTypeGuid(), false);
    cylinderCrop = firstAtom->GetDataLayerByType(KEL::DataTypeCylinderCrop::TheTypeGuid(), false);
    thumbnail = firstAtom->GetDataLayer(KEL::PurposeGuid_THUMBNAIL, KEL::DataTypeTextureRGBA::TheTypeGuid(), false);
}

OptimizedDataLoosener::~OptimizedDataLoosener() = default;

void OptimizedDataLoosener::LoosenOptimizedDataToAtom(std::shared_ptr<KEL::Atom> atom) const {
    if (!atom) {
        return;
    }
    // The stream information seen downstream is always the source's, which
    // carries the frame count of what the source plays.
    atom->RemoveDataLayers(KEL::DataTypeStreamInfo::TheTypeGuid());
    atom->AddDataLayer(streamInfo, true);

    bool hasCameraParams = false;
    bool hasRecordingInfo = false;
    bool hasBinary = false;
    bool hasStaticInfo = false;
    bool hasCylinderCrop = false;
    bool hasThumbnail = false;
    for (const auto& layer : atom->GetAllDataLayers()) {
        const KelCommon::Guid& type = layer->GetTypeGuid();
        if (type == KEL::DataTypeCameraParams::TheTypeGuid()) {
            hasCameraParams = true;
        } else if (type == KEL::DataTypeRecordingInfo::TheTypeGuid()) {
            hasRecordingInfo = true;
        } else if (type == KEL::DataTypeBinary::TheTypeGuid()) {
            hasBinary = true;
        } else if (type == KEL::DataTypeStaticInfo::TheTypeGuid()) {
            hasStaticInfo = true;
        } else if (type == KEL::DataTypeCylinderCrop::TheTypeGuid()) {
            hasCylinderCrop = true;
        } else if (layer->GetPurposeGuid() == KEL::PurposeGuid_THUMBNAIL &&
                   type == KEL::DataTypeTextureRGBA::TheTypeGuid()) {
            hasThumbnail = true;
        }
    }

    const std::pair<bool, const std::shared_ptr<KEL::DataLayer>*> restorable[] = {
        {hasCameraParams, &cameraParams}, {hasRecordingInfo, &recordingInfo}, {hasBinary, &binary},
        {hasStaticInfo, &staticInfo},     {hasCylinderCrop, &cylinderCrop},   {hasThumbnail, &thumbnail},
    };
    for (const auto& [present, cached] : restorable) {
        if (!present && *cached) {
            atom->AddDataLayer(*cached, true);
        }
    }
}

}  // namespace Kel2File
