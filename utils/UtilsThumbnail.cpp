#include <KEL/DataTypeTextureRGBA.h>
#include <KEL/KELLogger.h>
#include <KEL/PurposeGuids.h>
#include <KEL/ThumbnailHelper.h>

#include <vector>

#include "utils/PluginLog.h"
#include "utils/Utils.h"

namespace Kel2File {

void Utils::CreateThumbnailData(std::shared_ptr<KEL::Atom> atom) {
    if (!atom) {
        return;
    }
    const std::vector<std::shared_ptr<KEL::Atom>> atoms{atom};
    std::shared_ptr<KEL::DataTypeTextureRGBA> thumbnail = KEL::ThumbnailHelper::getThumbnail(atoms, false, false);
    if (!thumbnail) {
        Log(kLogFailure, "Failed to create a thumbnail for an atom");
        return;
    }
    // Replace, never duplicate, a thumbnail the atom brought along.
    atom->RemoveDataLayers(KEL::PurposeGuid_THUMBNAIL, KEL::DataTypeTextureRGBA::TheTypeGuid());
    atom->AddDataLayer(thumbnail, true);
}

}  // namespace Kel2File
