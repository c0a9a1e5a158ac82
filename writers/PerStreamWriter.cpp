#include "writers/PerStreamWriter.h"

#include "utils/ParameterNames.h"

namespace Kel2File {

PerStreamWriter::PerStreamWriter() = default;

PerStreamWriter::~PerStreamWriter() = default;

std::vector<std::shared_ptr<KEL::FilterParam>> PerStreamWriter::InitializeWriterParams() {
    if (!enableRecordingParam) {
        enableRecordingParam =
            std::make_shared<KEL::FilterParamBool>(kParamEnableRecording, KEL::PARAM_FLAG_LIVE, recording);
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

}  // namespace Kel2File
