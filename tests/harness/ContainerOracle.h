#pragma once

// Checks what a reader returns from a container against the model of the
// atoms that were written to it.

#include <KEL/ReadKEL2File.h>

#include <string>
#include <vector>

#include "harness/AtomModel.h"

namespace kel_harness {

// What the writer was told about one atom.
enum class Fate {
    kRequired,  // acknowledged (and, where it matters, durable): must come back identical
    kOptional,  // written or attempted: may be missing, must not come back altered
    kAbsent,    // its write failed: must not be there at all
};

struct WrittenAtom {
    const ModelAtom* model = nullptr;
    Fate fate = Fate::kOptional;
};

// Opens `path` with `options` and checks:
// - the file opens;
// - every required atom is listed under its stream and frame and reads back
//   identical to its model;
// - no atom whose write failed is listed;
// - every atom the reader lists is one of `written` (nothing invented), is
//   listed once (nothing duplicated) and, when it can be read, is identical
//   to its model (nothing altered or taken from another place).
// Returns the problems found; empty when there are none.
std::vector<std::string> CheckContainer(const std::string& path, const std::vector<WrittenAtom>& written,
                                        KEL::ReaderOptions options = {});

}  // namespace kel_harness
