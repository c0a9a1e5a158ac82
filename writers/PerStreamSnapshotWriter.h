#pragma once

#include <KEL/FilterParams.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>

#include "writers/PerStreamWriterBase.h"

namespace Kel2File {

// Writes in snapshot bursts, like SnapshotWriter (same budget accounting, no
// floor on the counter), but into one file per stream (PerStreamFilePath).
// No file is opened at play: a stream's file is opened at its first atom of
// the first snapshot and stays open for later snapshots of the same play;
// all files are closed together at stop or on a path change, which also
// cancels the snapshot in progress.
//
// Threads: as SnapshotWriter.
class PerStreamSnapshotWriter : public PerStreamWriterBase {
public:
    PerStreamSnapshotWriter();
    ~PerStreamSnapshotWriter() override;

    std::vector<std::shared_ptr<KEL::FilterParam>> InitializeWriterParams() override;
    void OnPlay(std::uint32_t numStreams) override;
    void OnStop() override;
    void HandleParamValueChanged(std::shared_ptr<KEL::FilterParam> param, const char* name) override;
    bool ProcessingAllowed() const override;

protected:
    void OnFilePathChanged() override;
    void OnAfterAtomWritten() override;
    // Closes every file and also cancels the snapshot in progress.
    void DestroySerializers();

private:
    std::shared_ptr<KEL::FilterParamCallback> takeSnapshotParam;
    std::shared_ptr<KEL::FilterParamUInt32> framesCountPerSnapshotParam;
    std::atomic<std::uint32_t> remainingAtoms{0};
};

}  // namespace Kel2File
