#pragma once

#include <KEL/Atom.h>
#include <KEL/KelErrorCode.h>

#include <memory>

#include "targets/TargetKEL2FileWriterBase.h"

namespace Kel2File {

// The synchronous data path: each atom is written through the strategy on
// the graph thread before onProcessFrame returns; parameter changes are
// applied after every frame, so they never take effect inside one. Takes no
// lock.
template <class W>
class TargetKEL2FileSyncWriter : public TargetKEL2FileWriterBase<W> {
public:
    TargetKEL2FileSyncWriter() = default;
    ~TargetKEL2FileSyncWriter() override = default;

    // 0 without writing while the strategy does not allow processing;
    // otherwise the result of writing the atom (the graph's atom keeps its
    // layers; only its frame number is changed to the output number).
    KEL::KelErrorCode onProcessFrame(std::shared_ptr<KEL::Atom> atom) override {
        if (!W::ProcessingAllowed()) {
            return 0;
        }
        return W::WriteAtom(atom, false);
    }

    KEL::KelErrorCode onPostUpdate() override {
        this->ApplyParamChanges();
        return 0;
    }
};

}  // namespace Kel2File
