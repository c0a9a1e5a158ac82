#pragma once

#include <KEL/Atom.h>
#include <KEL/DataTypeStreamInfo.h>
#include <KEL/Filter.h>

#include <memory>
#include <vector>

namespace KEL {

// A filter that produces atoms. The graph asks for one frame at a time with
// pushDataToOutput(frameNr); the source hands the atoms of that frame, one
// per output stream, to pushToOutputQueue, and the graph delivers them to the
// connected targets after the call returns. The number of frames of a run is
// the frame count of GetStreamInfo() (when it has one).
class KEL_API Source : public Filter {
public:
    Source();
    ~Source() override;

    // The stream information of the output, with its frame count; empty when
    // the source has none.
    virtual std::shared_ptr<DataTypeStreamInfo> GetStreamInfo();
    // Pushes the atoms of `frameNr`; returns 0 when it pushed the frame,
    // non-zero when it pushed nothing (the graph then skips the frame).
    virtual KelErrorCode pushDataToOutput(std::uint32_t frameNr);

    // Queues an atom for delivery after the current pushDataToOutput.
    void pushToOutputQueue(std::shared_ptr<Atom> atom);

    // Host side: takes the atoms queued so far.
    std::vector<std::shared_ptr<Atom>> TakeOutputQueue();

private:
    std::vector<std::shared_ptr<Atom>> outputQueue_;
};

}  // namespace KEL
