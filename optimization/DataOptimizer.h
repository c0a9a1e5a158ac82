#pragma once

#include <KEL/Atom.h>

#include <memory>

namespace Kel2File {

// Strips the layers that describe a stream rather than a frame from an atom
// that is not the first of its stream in a file: stream information,
// recording information, binary attachments, static information, cylinder
// crop, the thumbnail (RGBA texture with the thumbnail purpose) and camera
// parameters of versions 0 and 1. Camera parameters from version 2 on change
// per frame and are kept. OptimizedDataLoosener restores the removed layers
// from the stream's first atom.
class DataOptimizer {
public:
    DataOptimizer() = delete;

    // Modifies `atom` in place. The caller must own the atom: it must not be
    // one that other filters still read. An empty pointer is ignored.
    static void OptimizeAtomData(std::shared_ptr<KEL::Atom> atom);
};

}  // namespace Kel2File
