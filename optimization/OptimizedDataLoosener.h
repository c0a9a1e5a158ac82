#pragma once

#include <KEL/Atom.h>
#include <KEL/DataLayer.h>

#include <cstdint>
#include <memory>
#include <unordered_map>

namespace Kel2File {

// Puts back into an atom the stream-level layers that DataOptimizer removed
// when the stream was written, taking them from the stream's first atom.
//
// One loosener per stream. It is immutable after construction and may be
// used from any thread. The cached layers are not copied: the same layer
// objects are added to every atom that lacks them, so all atoms of a stream
// share them and consumers must treat them as read-only.
class OptimizedDataLoosener {
public:
    // `firstAtom` is the stream's first atom as read from the file;
    // `streamInfo` the stream information that every loosened atom carries.
    // A layer kind the first atom lacks stays unrestorable.
    OptimizedDataLoosener(std::shared_ptr<KEL::Atom> firstAtom, std::shared_ptr<KEL::DataLayer> streamInfo);
    ~OptimizedDataLoosener();

    OptimizedDataLoosener(const OptimizedDataLoosener&) = delete;
    OptimizedDataLoosener& operator=(const OptimizedDataLoosener&) = delete;

    // Completes `atom` in place: its stream information is replaced by the
    // cached one, and each cached stream-level layer kind that the atom lacks
    // is added. Layers the atom already has are kept.
    void LoosenOptimizedDataToAtom(std::shared_ptr<KEL::Atom> atom) const;

private:
    std::shared_ptr<KEL::DataLayer> streamInfo;
    std::shared_ptr<KEL::DataLayer> cameraParams;
    std::shared_ptr<KEL::DataLayer> recordingInfo;
    std::shared_ptr<KEL::DataLayer> binary;
    std::shared_ptr<KEL::DataLayer> staticInfo;
    std::shared_ptr<KEL::DataLayer> cylinderCrop;
    std::shared_ptr<KEL::DataLayer> thumbnail;
};

// A source's looseners, one per output stream, keyed by stream id.
using OptimizedDataLooseners = std::unordered_map<std::uint16_t, std::shared_ptr<const OptimizedDataLoosener>>;

}  // namespace Kel2File
