#pragma once

// The container's byte format, shared by the reader, the serializer and the
// verifier. docs/container-format.md describes it in prose.
//
// All integers are little-endian with explicit sizes; all offsets are 64-bit.
//
//   file := fileHeader checkpointSlot[2] record* [indexRecord footerRecord]
//
//   fileHeader (64 bytes at 0):
//     0  "KEL_Osprey"          10 bytes
//     10 u16 format version    (2000)
//     12 u8  layout revision   (2; 3 when layers may use coded blob tables)
//     13 u8  flags (0), 14 u16 reserved (0)
//     16 u64 file identity     (random, chosen at creation, never 0)
//     24 i64 creation time     (microseconds since the Unix epoch)
//     32 24 bytes reserved     (0)
//     56 u64 header check      (XXH3_64 over bytes 0..55)
//   checkpointSlot (32 bytes at 64 and at 96), rewritten in place:
//     0 u64 sequence (0: empty), 8 u64 checkpoint record offset,
//     16 u64 atoms listed up to that checkpoint,
//     24 u64 check (XXH3_64 over bytes 0..23 seeded with the file identity)
//   record := recordHeader payload, at an 8-byte aligned offset from 128 on,
//             payload size a multiple of 8
//   recordHeader (64 bytes):
//     0  u32 record magic
//     4  u8  kind              (RecordKind)
//     5  u8  reserved (0)
//     6  u16 format version    (2000)
//     8  u64 file identity     (the file header's)
//     16 u64 payload size      (bytes after the header)
//     24 u64 record offset     (where the record itself starts)
//     32 u64 payload check     (PayloadChecksum, Checksum.h)
//     40 u32 frame number, 44 u16 stream id, 46 u16 reserved,
//     48 i64 time stamp        (an atom record's key; 0 for other kinds)
//     56 u64 header check      (XXH3_64 over header bytes 0..55)
//
// Every record names the file it belongs to and where in it it was written,
// so records of another file (stale blocks of an earlier recording at the
// same path, a second file glued on, a container stored as an attachment
// inside an atom) are never taken for this file's, and the identity and the
// version survive the loss of the file header. An atom record's header also
// carries the atom's key, so that a file without its index is listed by
// reading headers only, with keys protected by the header check.

#include <KEL/KelErrorCode.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "container/ByteOrder.h"
#include "container/Checksum.h"

namespace KEL::container {

inline constexpr std::size_t kMagicSize = 10;
inline constexpr std::array<std::uint8_t, kMagicSize> kFileMagic{'K', 'E', 'L', '_', 'O', 's', 'p', 'r', 'e', 'y'};
inline constexpr std::uint16_t kFormatVersion = 2000;
inline constexpr std::uint8_t kLayoutRevision = 2;
// The layout of files whose layers may use coded blob tables (compressed
// blobs). Readers that predate it refuse such a file as a newer layout
// instead of taking its blobs for damage; this reader reads both.
inline constexpr std::uint8_t kLayoutRevisionCoded = 3;
inline constexpr std::size_t kFileHeaderSize = 64;
inline constexpr std::size_t kFileHeaderCheckedBytes = 56;

inline constexpr std::size_t kCheckpointSlotSize = 32;
inline constexpr std::array<std::uint64_t, 2> kCheckpointSlotOffsets{64, 96};
inline constexpr std::uint64_t kFirstRecordOffset = 128;

inline constexpr std::uint32_t kRecordMagic = 0x64524B89;  // bytes 89 'K' 'R' 'd'
inline constexpr std::size_t kRecordHeaderSize = 64;
inline constexpr std::size_t kRecordHeaderCheckedBytes = 56;
inline constexpr std::uint64_t kRecordAlignment = 8;

enum class RecordKind : std::uint8_t {
    kAtom = 1,
    kIndex = 2,
    kFooter = 3,
    kCheckpoint = 4,
};

// Atom payload:
//   0  u16 stream id, 2 u16 reserved, 4 u32 frame number,
//   8  i64 time stamp, 16 u32 atom id, 20 u32 layer count
//   then per layer a descriptor:
//     0 guid type (16), 16 guid purpose (16), 32 u16 version, 34 u16 reserved,
//     36 u32 blob count, 40 u32 fields size, 44 u32 blob table form,
//     48 fields bytes, padded to 8,
//     then per blob, in the plain form (0):
//       u64 offset (from the payload start), u64 size
//     or in the coded form (1):
//       0 u64 offset, 8 u64 stored size, 16 u64 original size,
//       24 u8 codec, 25 u8 filter, 26 u8 element size, 27 u8 reserved,
//       28 u32 original bytes per independently coded piece
//   then the blobs, each at a file offset aligned to kBlobAlignment,
//   then zero padding to a multiple of 8.
inline constexpr std::size_t kAtomMetaSize = 24;
inline constexpr std::size_t kLayerDescriptorSize = 48;
inline constexpr std::size_t kBlobRefSize = 16;
inline constexpr std::size_t kCodedBlobRefSize = 32;
inline constexpr std::uint32_t kBlobTablePlain = 0;
inline constexpr std::uint32_t kBlobTableCoded = 1;

// An index entry, as the index and the checkpoints list atom records:
//   0 u64 record offset, 8 i64 time stamp, 16 u32 frame number,
//   20 u16 stream id, 22 u16 reserved
inline constexpr std::size_t kIndexEntrySize = 24;
// Index payload: u64 entry count, then the entries of every atom record in
// file order.
inline constexpr std::size_t kIndexCountSize = 8;
// Checkpoint payload: u64 offset of the previous checkpoint (0: none),
// u64 entry count, then the entries of the atom records written since the
// previous checkpoint, in file order.
inline constexpr std::size_t kCheckpointPrefixSize = 16;
// Footer payload: u64 index record offset, u64 atom record count. The footer
// record is the last thing in a closed file, at EOF - kFooterRecordSize.
inline constexpr std::size_t kFooterPayloadSize = 16;
inline constexpr std::size_t kFooterRecordSize = kRecordHeaderSize + kFooterPayloadSize;

// ---- file header ----

struct FileHeader {
    std::uint16_t version = kFormatVersion;
    std::uint8_t revision = kLayoutRevision;
    std::uint64_t fileId = 0;
    std::int64_t createdUs = 0;
};

inline std::array<std::uint8_t, kFileHeaderSize> EncodeFileHeader(const FileHeader& h) {
    std::array<std::uint8_t, kFileHeaderSize> out{};
    std::memcpy(out.data(), kFileMagic.data(), kMagicSize);
    PutU16(out.data() + 10, h.version);
    out[12] = h.revision;
    PutU64(out.data() + 16, h.fileId);
    PutU64(out.data() + 24, static_cast<std::uint64_t>(h.createdUs));
    PutU64(out.data() + kFileHeaderCheckedBytes, Checksum(out.data(), kFileHeaderCheckedBytes));
    return out;
}

enum class FileHeaderStatus {
    kValid,
    kNoMagic,      // the file does not start like a container
    kDamaged,      // it does, but the header fails its check (or is cut short)
    kUnsupported,  // an intact header of a version or layout this host does not read
};

// Decodes the header in `data[0, size)` (size may be less than the header).
inline FileHeaderStatus DecodeFileHeader(const std::uint8_t* data, std::uint64_t size, FileHeader& out,
                                         std::string& reason) {
    if (size < kMagicSize || std::memcmp(data, kFileMagic.data(), kMagicSize) != 0) {
        reason = size == 0 ? "empty file" : "no container header";
        return FileHeaderStatus::kNoMagic;
    }
    // The first layout of format 2000 had a 15-byte header with a 16-bit
    // check and revision byte 0.
    if (size >= 15 && GetU16(data + 10) == kFormatVersion && data[12] == 0 &&
        GetU16(data + 13) == static_cast<std::uint16_t>(Checksum(data, 13))) {
        reason = "format 2000 in the layout of an earlier release (revision 0); this host reads revision " +
                 std::to_string(kLayoutRevision);
        return FileHeaderStatus::kUnsupported;
    }
    if (size < kFileHeaderSize) {
        reason = "file header cut short (" + std::to_string(size) + " bytes)";
        return FileHeaderStatus::kDamaged;
    }
    if (GetU64(data + kFileHeaderCheckedBytes) != Checksum(data, kFileHeaderCheckedBytes)) {
        reason = "damaged file header";
        return FileHeaderStatus::kDamaged;
    }
    out.version = GetU16(data + 10);
    out.revision = data[12];
    out.fileId = GetU64(data + 16);
    out.createdUs = static_cast<std::int64_t>(GetU64(data + 24));
    if (out.version != kFormatVersion || (out.revision != kLayoutRevision && out.revision != kLayoutRevisionCoded)) {
        reason = "format version " + std::to_string(out.version) + " revision " + std::to_string(out.revision) +
                 " (this host reads " + std::to_string(kFormatVersion) + " revisions " +
                 std::to_string(kLayoutRevision) + " and " + std::to_string(kLayoutRevisionCoded) + ")";
        return FileHeaderStatus::kUnsupported;
    }
    if (out.fileId == 0) {
        reason = "file header without identity";
        return FileHeaderStatus::kDamaged;
    }
    return FileHeaderStatus::kValid;
}

// ---- checkpoint slots ----

struct CheckpointSlot {
    std::uint64_t sequence = 0;
    std::uint64_t checkpointOffset = 0;
    std::uint64_t atoms = 0;
};

inline std::array<std::uint8_t, kCheckpointSlotSize> EncodeCheckpointSlot(const CheckpointSlot& s,
                                                                          std::uint64_t fileId) {
    std::array<std::uint8_t, kCheckpointSlotSize> out{};
    PutU64(out.data(), s.sequence);
    PutU64(out.data() + 8, s.checkpointOffset);
    PutU64(out.data() + 16, s.atoms);
    PutU64(out.data() + 24, Checksum(out.data(), 24, fileId));
    return out;
}

// False for an empty or damaged slot.
inline bool DecodeCheckpointSlot(const std::uint8_t* p, std::uint64_t fileId, CheckpointSlot& out) {
    if (GetU64(p + 24) != Checksum(p, 24, fileId)) {
        return false;
    }
    out.sequence = GetU64(p);
    out.checkpointOffset = GetU64(p + 8);
    out.atoms = GetU64(p + 16);
    return out.sequence != 0 && out.checkpointOffset >= kFirstRecordOffset &&
           out.checkpointOffset % kRecordAlignment == 0;
}

// ---- record headers ----

// What identifies an atom: its stream, its frame number, and its time stamp.
struct AtomKey {
    std::uint16_t streamId = 0;
    std::uint32_t frameNr = 0;
    std::int64_t timeStamp = 0;
};

struct RecordHeader {
    RecordKind kind = RecordKind::kAtom;
    AtomKey key;  // atom records only
    std::uint16_t version = kFormatVersion;
    std::uint64_t fileId = 0;
    std::uint64_t payloadSize = 0;
    std::uint64_t offset = 0;
    std::uint64_t payloadChecksum = 0;

    std::uint64_t TotalSize() const { return kRecordHeaderSize + payloadSize; }
};

inline void EncodeRecordHeader(const RecordHeader& h, std::uint8_t* out) {
    PutU32(out, kRecordMagic);
    out[4] = static_cast<std::uint8_t>(h.kind);
    out[5] = 0;
    PutU16(out + 6, h.version);
    PutU64(out + 8, h.fileId);
    PutU64(out + 16, h.payloadSize);
    PutU64(out + 24, h.offset);
    PutU64(out + 32, h.payloadChecksum);
    PutU32(out + 40, h.key.frameNr);
    PutU16(out + 44, h.key.streamId);
    PutU16(out + 46, 0);
    PutU64(out + 48, static_cast<std::uint64_t>(h.key.timeStamp));
    PutU64(out + 56, Checksum(out, kRecordHeaderCheckedBytes));
}

// Result of looking at kRecordHeaderSize bytes that should be a record header.
enum class HeaderStatus {
    kValid,
    kNoMagic,      // not the start of a record
    kBadChecksum,  // a record header, damaged
    kMisplaced,    // intact, but written for another offset, of another version, or malformed
};

// Decodes the header at `p`, which lies at file offset `offset`. Only the
// header's own bytes are read; the caller checks the identity and the payload
// against the file's size.
inline HeaderStatus DecodeRecordHeader(const std::uint8_t* p, std::uint64_t offset, RecordHeader& out) {
    if (GetU32(p) != kRecordMagic) {
        return HeaderStatus::kNoMagic;
    }
    if (GetU64(p + 56) != Checksum(p, kRecordHeaderCheckedBytes)) {
        return HeaderStatus::kBadChecksum;
    }
    out.kind = static_cast<RecordKind>(p[4]);
    out.version = GetU16(p + 6);
    out.fileId = GetU64(p + 8);
    out.payloadSize = GetU64(p + 16);
    out.offset = GetU64(p + 24);
    out.payloadChecksum = GetU64(p + 32);
    out.key.frameNr = GetU32(p + 40);
    out.key.streamId = GetU16(p + 44);
    out.key.timeStamp = static_cast<std::int64_t>(GetU64(p + 48));
    if (out.offset != offset || out.payloadSize % kRecordAlignment != 0 || p[5] != 0 || GetU16(p + 46) != 0 ||
        out.version != kFormatVersion || out.fileId == 0) {
        return HeaderStatus::kMisplaced;
    }
    return HeaderStatus::kValid;
}

}  // namespace KEL::container
