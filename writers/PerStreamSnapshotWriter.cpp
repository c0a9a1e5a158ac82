#include "writers/PerStreamSnapshotWriter.h"

#include <cstdint>

#include "utils/ParameterNames.h"

namespace Kel2File {

PerStreamSnapshotWriter::PerStreamSnapshotWriter() = default;

PerStreamSnapshotWriter::~PerStreamSnapshotWriter() = default;

std::vector<std::shared_ptr<KEL::FilterParam>> PerStreamSnapshotWriter::InitializeWriterParams() {
    if (!takeSnapshotParam) {
        takeSnapshotParam = std::make_shared<KEL::FilterParamCallback>(kParamTakeSnapshot, KEL::PARAM_FLAG_LIVE);
    }
    if (!framesCountPerSnapshotParam) {
        framesCountPerSnapshotParam =
            std::make_shared<KEL::FilterParamUInt32>(kParamFramesPerSnapshot, KEL::PARAM_FLAG_LIVE, 3, 1, UINT32_MAX);
    }
    return {takeSnapshotParam, framesCountPerSnapshotParam};
}

void PerStreamSnapshotWriter::OnPlay(std::uint32_t streams) {
    WriterBase::OnPlay(streams);
    ClearCachedPerStreamData();
    remainingAtoms.exchange(0);
}

void PerStreamSnapshotWriter::OnStop() { DestroySerializers(); }

void PerStreamSnapshotWriter::HandleParamValueChanged(std::shared_ptr<KEL::FilterParam> param, const char* /*name*/) {
    if (!param || param.get() != takeSnapshotParam.get() || !framesCountPerSnapshotParam) {
        return;
    }
    remainingAtoms.fetch_add(framesCountPerSnapshotParam->GetValue() * numStreams);
}

bool PerStreamSnapshotWriter::ProcessingAllowed() const { return remainingAtoms.load() != 0; }

void PerStreamSnapshotWriter::OnFilePathChanged() { DestroySerializers(); }

void PerStreamSnapshotWriter::OnAfterAtomWritten() { remainingAtoms.fetch_sub(1); }

void PerStreamSnapshotWriter::DestroySerializers() {
    PerStreamWriterBase::DestroySerializers();
    remainingAtoms.exchange(0);
}

}  // namespace Kel2File
