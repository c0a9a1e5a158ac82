#include "writers/BasicWriter.h"

#include "utils/ParameterNames.h"

namespace Kel2File {

BasicWriter::BasicWriter() = default;

BasicWriter::~BasicWriter() = default;

std::vector<std::shared_ptr<KEL::FilterParam>> BasicWriter::InitializeWriterParams() {
    if (!enableRecordingParam) {
        enableRecordingParam =
            std::make_shared<KEL::FilterParamBool>(kParamEnableRecording, KEL::PARAM_FLAG_LIVE, recording);
    }
    return {enableRecordingParam};
}

bool BasicWriter::RequestedRecording() const { return enableRecordingParam && enableRecordingParam->GetValue(); }

void BasicWriter::OnPlay(std::uint32_t streams) {
    WriterBase::OnPlay(streams);
    recording = RequestedRecording();
    if (recording) {
        CreateSerializer();
    }
}

void BasicWriter::OnStop() {
    DestroySerializerInstance(serializer);
    ClearCachedPerStreamData();
}

bool BasicWriter::WriterParamChangesAvailable() const { return RequestedRecording() != recording; }

void BasicWriter::ApplyWriterParamChanges() { UpdateRecordingStatus(); }

void BasicWriter::UpdateRecordingStatus() {
    const bool requested = RequestedRecording();
    if (requested == recording) {
        return;
    }
    recording = requested;
    if (recording) {
        serializer = CreateSerializerInstance(currentFilePath);
        ClearCachedPerStreamData();
    } else {
        DestroySerializerInstance(serializer);
        ClearCachedPerStreamData();
    }
}

bool BasicWriter::ProcessingAllowed() const { return recording; }

void BasicWriter::OnFilePathChanged() {
    if (!recording) {
        return;
    }
    DestroySerializerInstance(serializer);
    ClearCachedPerStreamData();
    serializer = CreateSerializerInstance(currentFilePath);
    ClearCachedPerStreamData();
}

KEL::KelErrorCode BasicWriter::SerializeAtom(std::shared_ptr<KEL::Atom> atom) {
    return SerializeAtomUsingSerializer(serializer, atom);
}

void BasicWriter::CreateSerializer() {
    serializer = CreateSerializerInstance(currentFilePath);
    ClearCachedPerStreamData();
}

void BasicWriter::DestroySerializer() {
    DestroySerializerInstance(serializer);
    ClearCachedPerStreamData();
}

}  // namespace Kel2File
