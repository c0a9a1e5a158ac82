#include "optimization/DataOptimizer.h"

#include <KEL/DataLayer.h>
#include <KEL/DataTypeBinary.h>
#include <KEL/DataTypeCameraParams.h>
#include <KEL/DataTypeCylinderCrop.h>
#include <KEL/DataTypeRecordingInfo.h>
#include <KEL/DataTypeStaticInfo.h>
#include <KEL/DataTypeStreamInfo.h>
#include <KEL/DataTypeTextureRGBA.h>
#include <KEL/PurposeGuids.h>

namespace Kel2File {

namespace {

// Camera parameters below this version are constant for a stream.
constexpr std::uint16_t kFirstPerFrameCameraParamsVersion = 2;

}  // namespace

void DataOptimizer::OptimizeAtomData(std::shared_ptr<KEL::Atom> atom) {
    if (!atom) {
        return;
    }
    atom->RemoveDataLayers(KEL::DataTypeStreamInfo::TheTypeGuid());
    atom->RemoveDataLayers(KEL::DataTypeRecordingInfo::TheTypeGuid());
    atom->RemoveDataLayers(KEL::DataTypeBinary::TheTypeGuid());
    atom->RemoveDataLayers(KEL::DataTypeStaticInfo::TheTypeGuid());
    atom->RemoveDataLayers(KEL::DataTypeCylinderCrop::TheTypeGuid());
    atom->RemoveDataLayers(KEL::PurposeGuid_THUMBNAIL, KEL::DataTypeTextureRGBA::TheTypeGuid());
    atom->RemoveDataLayers(KEL::DataTypeCameraParams::TheTypeGuid(),
                           [](const std::shared_ptr<const KEL::DataLayer>& layer) {
                               return layer->GetVersion() < kFirstPerFrameCameraParamsVersion;
                           });
}

}  // namespace Kel2File
