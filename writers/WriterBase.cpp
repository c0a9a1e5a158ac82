#include "writers/WriterBase.h"

#include <KEL/KEL2Header.h>
#include <KEL/KELLogger.h>

#include <boost/filesystem/path.hpp>

#include "optimization/DataOptimizer.h"
#include "utils/PluginLog.h"
#include "utils/Utils.h"

namespace Kel2File {

WriterBase::WriterBase() = default;

WriterBase::~WriterBase() = default;

std::vector<std::shared_ptr<KEL::FilterParam>> WriterBase::InitializeWriterParams() { return {}; }

void WriterBase::OnPlay(std::uint32_t streams) { numStreams = streams; }

void WriterBase::OnStop() {}

bool WriterBase::WriterParamChangesAvailable() const { return false; }

void WriterBase::ApplyWriterParamChanges() {}

void WriterBase::HandleParamValueChanged(std::shared_ptr<KEL::FilterParam> /*param*/, const char* /*name*/) {}

void WriterBase::OnAfterAtomWritten() {}

void WriterBase::SetCurrentFilePath(const std::string& path, bool suppressNotification) {
    if (path == currentFilePath) {
        return;
    }
    currentFilePath = path;
    if (!suppressNotification) {
        OnFilePathChanged();
    }
}

void WriterBase::SetThumbnailCreationCurrentlyEnabled(bool enabled) { thumbnailCreationCurrentlyEnabled = enabled; }

WriterBase::SerializerPtr WriterBase::CreateSerializerInstance(const std::string& path) const {
    boost::filesystem::path filePath(path);
    filePath.replace_extension(".kel");
    std::string serializerPath = filePath.string();
    if (writeXml) {
        serializerPath += "+xml";
    }
    Log(kLogInfo, "WriterBase::Start writing '%s'", serializerPath.c_str());
    return std::make_shared<KEL::SerializeToKel>(serializerPath.c_str(), true, KEL::CURRENT_VERSION, false);
}

void WriterBase::DestroySerializerInstance(SerializerPtr& serializer) const {
    if (serializer) {
        Log(kLogInfo, "WriterBase::Stop writing '%s'", serializer->GetFilePath().c_str());
    }
    serializer.reset();
}

KEL::KelErrorCode WriterBase::SerializeAtomUsingSerializer(const SerializerPtr& serializer,
                                                           const std::shared_ptr<KEL::Atom>& atom) {
    if (!serializer) {
        return KEL::KEL_ERR_NOT_OPEN;
    }
    return serializer->SerializeAtom(atom);
}

void WriterBase::ClearCachedPerStreamData() { nextFrameNrPerStream.clear(); }

KEL::KelErrorCode WriterBase::WriteAtom(std::shared_ptr<KEL::Atom> atom, bool atomIsOwned) {
    if (!atom) {
        return KEL::KEL_ERR_INVALID;
    }
    const std::uint16_t streamId = atom->GetStreamId();
    const std::uint32_t frameNr = nextFrameNrPerStream.try_emplace(streamId, 0).first->second;

    std::shared_ptr<KEL::Atom> toWrite = atomIsOwned ? atom : KEL::Atom::Copy(atom, static_cast<int>(frameNr), true);
    // Copy reads -1 as "keep the frame number"; setting it again covers the
    // one output number that looks like that.
    toWrite->SetFrameNr(frameNr);
    atom->SetFrameNr(frameNr);

    if (frameNr != 0) {
        DataOptimizer::OptimizeAtomData(toWrite);
    } else if (thumbnailCreationCurrentlyEnabled) {
        Utils::CreateThumbnailData(toWrite);
    }

    const KEL::KelErrorCode result = SerializeAtom(toWrite);
    if (result != 0) {
        return result;
    }
    nextFrameNrPerStream[streamId] = frameNr + 1;
    OnAfterAtomWritten();
    return 0;
}

}  // namespace Kel2File
