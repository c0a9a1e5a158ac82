#include "container/RecordScanner.h"

#include <algorithm>

namespace KEL::container {

namespace {

// The offset of the next intact record header at or after `from`, or `size`.
std::uint64_t FindNextRecord(const std::uint8_t* data, std::uint64_t size, std::uint64_t from) {
    RecordHeader header;
    for (std::uint64_t q = from; q <= size && size - q >= kRecordHeaderSize; q += kRecordAlignment) {
        if (GetU32(data + q) == kRecordMagic && DecodeRecordHeader(data + q, q, header) == HeaderStatus::kValid) {
            return q;
        }
    }
    return size;
}

bool AllZero(const std::uint8_t* p, std::uint64_t n) {
    return std::all_of(p, p + n, [](std::uint8_t b) { return b == 0; });
}

}  // namespace

void ScanRecords(const std::uint8_t* data, std::uint64_t size, const ScanVisitor& visitor) {
    std::uint64_t pos = kFirstRecordOffset;
    while (pos < size) {
        const std::uint64_t remaining = size - pos;
        if (remaining < kRecordHeaderSize) {
            visitor.onTail(pos, remaining);
            return;
        }
        RecordHeader header;
        if (DecodeRecordHeader(data + pos, pos, header) == HeaderStatus::kValid) {
            if (header.payloadSize > remaining - kRecordHeaderSize) {
                visitor.onTail(pos, remaining);
                return;
            }
            const std::uint8_t* payload = data + pos + kRecordHeaderSize;
            const bool valid =
                PayloadChecksum(payload, header.payloadSize, pos + kRecordHeaderSize) == header.payloadChecksum;
            visitor.onRecord(pos, header, valid);
            pos += header.TotalSize();
            continue;
        }
        const std::uint64_t next = FindNextRecord(data, size, pos + kRecordAlignment);
        if (next < size) {
            visitor.onDamage(pos, next - pos);
            pos = next;
            continue;
        }
        if (AllZero(data + pos, remaining)) {
            visitor.onTail(pos, remaining);
        } else {
            visitor.onDamage(pos, remaining);
        }
        return;
    }
}

}  // namespace KEL::container
