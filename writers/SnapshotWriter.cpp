#include "writers/SnapshotWriter.h"

#include <cstdint>

#include "utils/ParameterNames.h"

namespace Kel2File {

SnapshotWriter::SnapshotWriter() = default;

SnapshotWriter::~SnapshotWriter() = default;

std::vector<std::shared_ptr<KEL::FilterParam>> SnapshotWriter::InitializeWriterParams() {
    if (!takeSnapshotParam) {
        takeSnapshotParam = std::make_shared<KEL::FilterParamCallback>(kParamTakeSnapshot, KEL::PARAM_FLAG_LIVE);
    }
    if (!framesCountPerSnapshotParam) {
        framesCountPerSnapshotParam =
            std::make_shared<KEL::FilterParamUInt32>(kParamFramesPerSnapshot, KEL::PARAM_FLAG_LIVE, 3, 1, UINT32_MAX);
    }
    return {takeSnapshotParam, framesCountPerSnapshotParam};
}

void SnapshotWriter::OnPlay(std::uint32_t streams) {
    WriterBase::OnPlay(streams);
    CreateSerializer();
}

void SnapshotWriter::OnStop() { DestroySerializer(); }

void SnapshotWriter::HandleParamValueChanged(std::shared_ptr<KEL::FilterParam> param, const char* /*name*/) {
    if (!param || param.get() != takeSnapshotParam.get() || !framesCountPerSnapshotParam) {
        return;
    }
    remainingAtoms.fetch_add(framesCountPerSnapshotParam->GetValue() * numStreams);
}

bool SnapshotWriter::ProcessingAllowed() const { return remainingAtoms.load() != 0; }

void SnapshotWriter::OnFilePathChanged() {
    DestroySerializerInstance(serializer);
    ClearCachedPerStreamData();
    remainingAtoms.exchange(0);
    CreateSerializer();
}

void SnapshotWriter::OnAfterAtomWritten() { remainingAtoms.fetch_sub(1); }

KEL::KelErrorCode SnapshotWriter::SerializeAtom(std::shared_ptr<KEL::Atom> atom) {
    return SerializeAtomUsingSerializer(serializer, atom);
}

void SnapshotWriter::CreateSerializer() {
    serializer = CreateSerializerInstance(currentFilePath);
    ClearCachedPerStreamData();
    remainingAtoms.exchange(0);
}

void SnapshotWriter::DestroySerializer() {
    DestroySerializerInstance(serializer);
    ClearCachedPerStreamData();
    remainingAtoms.exchange(0);
}

}  // namespace Kel2File
