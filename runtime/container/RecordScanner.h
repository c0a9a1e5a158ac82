#pragma once

#include <cstdint>
#include <functional>

#include "container/ContainerFormat.h"

namespace KEL::container {

// Receives what a scan finds, in file order.
struct ScanVisitor {
    // A record with an intact header and a complete payload; `payloadValid`
    // tells whether the payload matches its checksum.
    std::function<void(std::uint64_t offset, const RecordHeader& header, bool payloadValid)> onRecord;
    // Bytes that belong to no intact record, followed by an intact one (or by
    // more non-zero bytes up to the end of the file).
    std::function<void(std::uint64_t offset, std::uint64_t length)> onDamage;
    // The end of a file whose writer stopped mid-record: a partial header, a
    // record whose payload runs past the end, or zero bytes that a crashed
    // system left behind.
    std::function<void(std::uint64_t offset, std::uint64_t length)> onTail;
};

// Walks the records of `data[0, size)` from kFirstRecordOffset. An intact
// header is trusted for the record's length (its checksum covers the length);
// a damaged one is skipped by searching, at record-aligned offsets, for the
// next intact header. Reads nothing outside the range, and always ends: every
// step moves forward by at least kRecordAlignment bytes.
void ScanRecords(const std::uint8_t* data, std::uint64_t size, const ScanVisitor& visitor);

}  // namespace KEL::container
