#include "writers/PerStreamWriter.h"

#include "writers/PerStreamFilePath.h"

namespace Kel2File {

PerStreamWriter::PerStreamWriter() = default;

PerStreamWriter::~PerStreamWriter() = default;

std::vector<std::shared_ptr<KEL::FilterParam>> PerStreamWriter::InitializeWriterParams() {
    if (!enableRecordingParam) {
        enableRecordingParam = std::make_shared<KEL::FilterParamBool>("Enable Recording", 0, recording);
    }
    return {enableRecordingParam};
}

bool PerStreamWriter::RequestedRecording() const { return enableRecordingParam && enableRecordingParam->GetValue(); }

void PerStreamWriter::OnPlay(std::uint32_t streams) {
    WriterBase::OnPlay(streams);
    recording = RequestedRecording();
    if (recording) {
        ClearCachedPerStreamData();
    }
}

void PerStreamWriter::OnStop() { DestroySerializers(); }

bool PerStreamWriter::WriterParamChangesAvailable() const { return RequestedRecording() != recording; }

void PerStreamWriter::ApplyWriterParamChanges() { UpdateRecordingStatus(); }

void PerStreamWriter::UpdateRecordingStatus() {
    const bool requested = RequestedRecording();
    if (requested == recording) {
        return;
    }
    recording = requested;
    if (recording) {
        ClearCachedPerStreamData();
    } else {
        DestroySerializers();
    }
}

bool PerStreamWriter::ProcessingAllowed() const { return recording; }

void PerStreamWriter::OnFilePathChanged() {
    if (!recording) {
        return;
    }
    DestroySerializers();
}

KEL::KelErrorCode PerStreamWriter::SerializeAtom(std::shared_ptr<KEL::Atom> atom) {
    return SerializeAtomUsingSerializer(GetOrCreateSerializerForStream(atom->GetStreamId()), atom);
}

WriterBase::SerializerPtr PerStreamWriter::GetOrCreateSerializerForStream(std::uint16_t streamId) {
    auto it = serializersPerStream.find(streamId);
    if (it != serializersPerStream.end()) {
        return it->second;
    }
    SerializerPtr serializer = CreateSerializerInstance(PerStreamFilePath(currentFilePath, streamId));
    serializersPerStream.emplace(streamId, serializer);
    return serializer;
}

void PerStreamWriter::DestroySerializers() {
    for (auto& entry : serializersPerStream) {
        DestroySerializerInstance(entry.second);
    }
    serializersPerStream.clear();
    ClearCachedPerStreamData();
}

}  // namespace Kel2File
