#pragma once

#include <KEL/FilterParams.h>

#include <memory>

#include "writers/WriterBase.h"

namespace Kel2File {

// Records every atom into one file while "Enable Recording" is on. Switching
// the parameter on (applied between frames) opens the file, switching it off
// closes it; a path change while recording closes the file and opens one
// under the new name. Each opening restarts every stream at frame 0.
//
// Threads: `recording` and the serializer are used only on the writing side
// and by the target's apply/start/stop calls (see WriterBase).
class BasicWriter : public WriterBase {
public:
    BasicWriter();
    ~BasicWriter() override;

    std::vector<std::shared_ptr<KEL::FilterParam>> InitializeWriterParams() override;
    void OnPlay(std::uint32_t numStreams) override;
    void OnStop() override;
    bool WriterParamChangesAvailable() const override;
    void ApplyWriterParamChanges() override;
    bool ProcessingAllowed() const override;

protected:
    void OnFilePathChanged() override;
    KEL::KelErrorCode SerializeAtom(std::shared_ptr<KEL::Atom> atom) override;

    void UpdateRecordingStatus();
    void CreateSerializer();
    void DestroySerializer();

private:
    // The parameter's value; false while the parameter does not exist.
    bool RequestedRecording() const;

    std::shared_ptr<KEL::FilterParamBool> enableRecordingParam;
    bool recording = false;
    SerializerPtr serializer;
};

}  // namespace Kel2File
