#pragma once

#include <cstdint>
#include <functional>

#include "container/ContainerFormat.h"
#include "container/ReadableFile.h"

namespace KEL::container {

// Receives what a walk finds, in file order.
struct WalkVisitor {
    // A record with an intact header whose payload lies within the walk.
    // `payloadValid` tells whether the payload matches its checksum when the
    // walk verifies payloads; otherwise it is true (checked when read).
    std::function<void(std::uint64_t offset, const RecordHeader& header, bool payloadValid)> onRecord;
    // Bytes that belong to no intact record of the file, followed by an
    // intact one (or by more non-zero bytes up to the end); `foreignRecords`
    // of them were intact records of another file.
    std::function<void(std::uint64_t offset, std::uint64_t length, std::uint64_t foreignRecords)> onDamage;
    // The end of a file whose writer stopped mid-record (or is still
    // writing): a partial header, a record whose payload runs past the end,
    // or zero bytes that a crashed system left behind.
    std::function<void(std::uint64_t offset, std::uint64_t length)> onTail;
};

struct WalkRange {
    std::uint64_t begin = kFirstRecordOffset;
    std::uint64_t end = 0;
    // The file's identity; records of any other are damage. 0 accepts the
    // records of every identity (used only to find the identity of a file
    // whose header is lost).
    std::uint64_t fileId = 0;
    // Read and check every payload (the verifier); otherwise only headers
    // are read, and a walk costs one small read per record.
    bool verifyPayloads = false;
};

// Walks the records of `range`. An intact header is trusted for the record's
// length (its checksum covers the length); a damaged one is skipped by
// searching, at record-aligned offsets, for the next intact header of the
// file. Reads nothing outside the range, and always ends: every step moves
// forward by at least kRecordAlignment bytes. Returns where a later walk of
// the same, grown file should resume: the end of the last complete record or
// the start of an incomplete tail.
std::uint64_t WalkRecords(const ReadableFile& file, const WalkRange& range, const WalkVisitor& visitor);

}  // namespace KEL::container
