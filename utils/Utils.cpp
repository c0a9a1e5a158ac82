#include "utils/Utils.h"

#include <KEL/DataLayer.h>
#include <KEL/KEL2Header.h>
#include <KEL/KELLogger.h>
#include <KEL/PurposeGuids.h>

#include <cassert>
#include <limits>

#include "utils/PluginLog.h"

namespace Kel2File {

std::uint32_t Utils::DetermineFileNumFrames(std::shared_ptr<KEL::ReadKEL2File> reader) {
    // A negative stream count (a broken reader) reports the largest count.
    if (reader->GetNumStreams() < 0) {
        return std::numeric_limits<std::uint32_t>::max();
    }
    return reader->GetNumPlayableFrames();
}

std::shared_ptr<KEL::DataTypeStreamInfo> Utils::ExtractStreamInfo(std::shared_ptr<KEL::Atom> atom,
                                                                  std::uint32_t numFrames) {
    auto streamInfo = atom ? KEL::LayerCast<KEL::DataTypeStreamInfo>(
                                 atom->GetDataLayerByType(KEL::DataTypeStreamInfo::TheTypeGuid(), false))
                           : nullptr;
    if (!streamInfo) {
        Log(kLogFailure, "The atom lacks stream info data layer");
        return nullptr;
    }
    streamInfo->SetNumFrames(numFrames);
    return streamInfo;
}

std::shared_ptr<KEL::Profile> Utils::DetermineProfile(std::shared_ptr<KEL::Atom> atom) {
    auto profile = std::make_shared<KEL::Profile>();
    if (!atom) {
        return profile;
    }
    for (const auto& layer : atom->GetAllDataLayers()) {
        profile->Add(layer->GetDataProfile());
    }
    return profile;
}

void Utils::LoosenOptimizedData(std::shared_ptr<KEL::Atom> atom, const OptimizedDataLooseners& looseners) {
    const auto it = looseners.find(atom->GetStreamId());
    assert(it != looseners.end() && "every stream a source pushes has a loosener");
    if (it == looseners.end()) {
        return;
    }
    it->second->LoosenOptimizedDataToAtom(std::move(atom));
}

}  // namespace Kel2File
