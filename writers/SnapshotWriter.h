#pragma once

#include <KEL/FilterParams.h>

#include <atomic>
#include <cstdint>
#include <memory>

#include "writers/WriterBase.h"

namespace Kel2File {

// Opens one file at play and keeps it open until stop, but writes only in
// bursts: each press of "Take snapshot" allows "Frames count per snapshot"
// times the number of input streams more atoms. Presses add up, snapshots of
// one play follow each other in the same file with continuing frame numbers.
//
// The budget `remainingAtoms` is counted in atoms, decremented once per
// written atom with no floor: a frame that carries more atoms than remain
// wraps the counter, and writing then goes on until it has counted down.
//
// Threads: presses arrive on the parameter's thread (HandleParamValueChanged)
// while atoms are written on the writing side, so the budget is atomic; the
// serializer is used only on the writing side and by start/stop/path calls.
class SnapshotWriter : public WriterBase {
public:
    SnapshotWriter();
    ~SnapshotWriter() override;

    std::vector<std::shared_ptr<KEL::FilterParam>> InitializeWriterParams() override;
    void OnPlay(std::uint32_t numStreams) override;
    void OnStop() override;
    void HandleParamValueChanged(std::shared_ptr<KEL::FilterParam> param, const char* name) override;
    bool ProcessingAllowed() const override;

protected:
    void OnFilePathChanged() override;
    void OnAfterAtomWritten() override;
    KEL::KelErrorCode SerializeAtom(std::shared_ptr<KEL::Atom> atom) override;

    void CreateSerializer();
    void DestroySerializer();

private:
    std::shared_ptr<KEL::FilterParamCallback> takeSnapshotParam;
    std::shared_ptr<KEL::FilterParamUInt32> framesCountPerSnapshotParam;
    std::atomic<std::uint32_t> remainingAtoms{0};
    SerializerPtr serializer;
};

}  // namespace Kel2File
