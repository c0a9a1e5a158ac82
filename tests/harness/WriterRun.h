#pragma once

// Writes a generated atom sequence with the container serializer while its
// file operations go through a SimulatedFileIo, and keeps what the writer was
// told at each step.

#include <KEL/Compression.h>
#include <KEL/KelErrorCode.h>

#include <memory>
#include <string>
#include <vector>

#include "harness/AtomModel.h"
#include "harness/ContainerOracle.h"
#include "harness/SimulatedFileIo.h"

namespace kel_harness {

// Half of the seeded runs write compressed blobs (zstd), chosen by a bit of
// the seed that the other per-seed options (sync, companion) do not use.
inline KEL::CompressionSetting CompressionFor(std::uint64_t seed) {
    KEL::CompressionSetting setting;
    if ((seed / 6) % 2 == 1) {
        setting.codec = KEL::CompressionCodec::kZstd;
    }
    return setting;
}

struct WriterRunOptions {
    bool syncEachAtom = false;
    bool xmlCompanion = false;
    // Retry an atom once when its write fails.
    bool retryFailedAtom = true;
    KEL::CompressionSetting compression;
    std::vector<Fault> faults;
};

struct WriterRun {
    std::string path;  // the container, absolute
    std::vector<Op> ops;
    KEL::KelErrorCode openResult = 0;
    KEL::KelErrorCode closeResult = 0;
    // Per atom: the result of its last attempt, and the number of operations
    // done when it was acknowledged (0: never acknowledged).
    std::vector<KEL::KelErrorCode> results;
    std::vector<std::size_t> acknowledgedAfter;
    // The first result that was not 0 (open, an atom, or close), or 0, and
    // where it came: -1 for the open, an atom's index, or the number of
    // atoms for the close.
    KEL::KelErrorCode firstFailure = 0;
    long failedAt = -2;
    std::size_t faultsFired = 0;

    // The atoms as the writer knows them after a crash right after
    // operation count `ops`: acknowledged by then (and, with
    // `durableOnly`, synced since) is required, anything else optional.
    std::vector<WrittenAtom> Expectations(const std::vector<ModelAtom>& atoms, std::size_t opsDone,
                                          bool durableOnly) const;
    // What the finished run promises: acknowledged atoms required, failed
    // ones absent.
    std::vector<WrittenAtom> Outcome(const std::vector<ModelAtom>& atoms) const;
};

// Writes `atoms` to `root`/`name` through a SimulatedFileIo installed for the
// duration of the run. `root` must exist.
WriterRun RunWriter(const std::string& root, const std::string& name, const std::vector<ModelAtom>& atoms,
                    const WriterRunOptions& options);

// The code the serializer reports for a failing system call's errno.
KEL::KelErrorCode CodeForErrno(int error);

}  // namespace kel_harness
