#pragma once

#include <KEL/Atom.h>
#include <KEL/DataTypeStreamInfo.h>
#include <KEL/Profile.h>
#include <KEL/ReadKEL2File.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "optimization/OptimizedDataLoosener.h"

namespace Kel2File {

// Stateless helpers shared by the source filters and the writers.
// All members are static; none takes a lock or keeps state, so they may be
// called from any thread on objects that thread owns.
class Utils {
public:
    Utils() = delete;

    // Frame count of an initialised container: that of its shortest stream.
    // 0 for a file without streams.
    static std::uint32_t DetermineFileNumFrames(std::shared_ptr<KEL::ReadKEL2File> reader);

    // The stream information layer of a stream's first atom, with its frame
    // count set to `numFrames`. The layer is changed in place: it is the
    // atom's own object. Empty (and one line logged at level 2) when the atom
    // has no stream information or is empty.
    static std::shared_ptr<KEL::DataTypeStreamInfo> ExtractStreamInfo(std::shared_ptr<KEL::Atom> atom,
                                                                      std::uint32_t numFrames);

    // The profile of an atom: the data profiles of its layers, in layer
    // order. Never empty (a profile without entries for an atom without
    // layers or no atom).
    static std::shared_ptr<KEL::Profile> DetermineProfile(std::shared_ptr<KEL::Atom> atom);

    // Restores the optimized data of `atom` in place with the loosener of its
    // stream. The caller guarantees that `looseners` holds one for the
    // atom's stream; a missing one is a programming error (asserted in debug
    // builds, the atom left as it is otherwise).
    static void LoosenOptimizedData(std::shared_ptr<KEL::Atom> atom, const OptimizedDataLooseners& looseners);

    // The absolute, canonical paths of the regular files of `directory` whose
    // path ends in ".kel" (case-sensitive), in directory iteration order;
    // symbolic links are listed under their target's path. With `recursive`
    // subdirectories are searched too. Throws boost::filesystem's
    // filesystem_error when the directory cannot be iterated or a candidate
    // cannot be canonicalised.
    static std::vector<std::string> CollectPotentialKELFilesInDirectory(std::string directory, bool recursive);

    // Adds a thumbnail layer made from `atom`'s frame to `atom` itself.
    static void CreateThumbnailData(std::shared_ptr<KEL::Atom> atom);
};

}  // namespace Kel2File
