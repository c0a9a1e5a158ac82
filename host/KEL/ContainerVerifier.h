#pragma once

#include <KEL/KelErrorCode.h>
#include <KelCommon/Export.h>

#include <cstdint>
#include <string>
#include <vector>

namespace KEL {

// One damaged or suspicious place in a container file.
struct ContainerProblem {
    std::uint64_t offset = 0;  // where in the file
    std::uint64_t length = 0;  // bytes concerned (0 when not a byte range)
    std::string what;          // human-readable description
};

// The outcome of checking a container file byte by byte.
struct ContainerVerification {
    // What ReadKEL2File::Initialize would return for this file (0 = opens).
    KelErrorCode openResult = KEL_OK;
    // The reason when openResult is not 0.
    std::string openError;
    std::uint16_t formatVersion = 0;
    std::uint64_t fileSize = 0;
    std::uint64_t fileId = 0;  // the identity the records must carry
    // The file header is unreadable; the identity came from the footer or the records.
    bool headerDamaged = false;

    bool indexPresent = false;  // a footer at the end of the file
    bool indexValid = false;    // ...and the index it points to is intact and agrees with the records

    std::uint64_t atomRecords = 0;         // atom records with an intact header
    std::uint64_t damagedRecords = 0;      // records or regions that fail their checks
    std::uint64_t damagedBytes = 0;        // bytes in them
    std::uint64_t foreignRecords = 0;      // intact records of another file among the damaged bytes
    std::uint64_t truncatedTailBytes = 0;  // an incomplete last record (a writer that stopped)
    // Atoms a reader returns from this file: through the index when it is
    // valid (its entries whose records are intact), otherwise by scanning.
    std::uint64_t recoverableAtoms = 0;
    std::uint64_t streams = 0;

    std::vector<ContainerProblem> problems;
    // Not damage, but most likely a writer's mistake: a stream holding a
    // frame number twice (readers return the first written), time stamps
    // going backwards within a stream (in file order). At most a few per
    // stream are listed.
    std::vector<ContainerProblem> warnings;

    // True when nothing is damaged: the file opens, every record is intact,
    // and the index is present and valid. A file that was never closed (no
    // index, possibly a truncated tail) is not intact but may lose nothing.
    bool IsIntact() const noexcept {
        return openResult == KEL_OK && !headerDamaged && damagedRecords == 0 && truncatedTailBytes == 0 && indexValid;
    }
    // The verdict in one word: "OK" (intact), "NOT CLOSED" (every record
    // intact, but no valid index: the writer did not close the file; a
    // reader loses nothing), "DAMAGED", or "UNREADABLE" (a reader cannot
    // open it).
    const char* Verdict() const noexcept {
        if (openResult != KEL_OK) {
            return "UNREADABLE";
        }
        if (IsIntact()) {
            return "OK";
        }
        if (!headerDamaged && damagedRecords == 0 && truncatedTailBytes == 0) {
            return "NOT CLOSED";
        }
        return "DAMAGED";
    }
};

// Checks a container file fully: the file header, the footer and the index,
// the checkpoints, and the header and payload checksum of every record; every
// index and checkpoint entry must point to an intact atom record of the
// stream, frame and time stamp it names, and every atom record must be listed
// in the index. Never modifies the file. Reads the whole
// file (cost proportional to its size). Thread-safe (no shared state); never
// throws: an unreadable file is reported through openResult.
KEL_API ContainerVerification VerifyContainer(const std::string& path);

}  // namespace KEL
