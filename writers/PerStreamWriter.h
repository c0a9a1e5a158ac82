#pragma once

#include <KEL/FilterParams.h>

#include <cstdint>
#include <map>
#include <memory>

#include "writers/PerStreamWriterBase.h"

namespace Kel2File {

// Records continuously while "Enable Recording" is on, like BasicWriter, but
// into one file per stream (PerStreamFilePath). A stream's file is opened
// when its first atom is written; all files are closed together at stop, when
// recording is switched off and on a path change while recording.
//
// Threads: as BasicWriter.
class PerStreamWriter : public PerStreamWriterBase {
public:
    PerStreamWriter();
    ~PerStreamWriter() override;

    std::vector<std::shared_ptr<KEL::FilterParam>> InitializeWriterParams() override;
    void OnPlay(std::uint32_t numStreams) override;
    void OnStop() override;
    bool WriterParamChangesAvailable() const override;
    void ApplyWriterParamChanges() override;
    bool ProcessingAllowed() const override;

protected:
    void OnFilePathChanged() override;
    void UpdateRecordingStatus();

private:
    bool RequestedRecording() const;

    std::shared_ptr<KEL::FilterParamBool> enableRecordingParam;
    bool recording = false;
};

}  // namespace Kel2File
