#pragma once

// The container's byte format, shared by the reader, the serializer and the
// verifier. docs/container-format.md describes it in prose.
//
// All integers are little-endian with explicit sizes; all offsets are 64-bit.
//
//   file    := fileHeader pad(1) record* [indexRecord footerRecord]
//   fileHeader (15 bytes):
//     0  "KEL_Osprey"        10 bytes
//     10 u16 format version  (2000)
//     12 u8  reserved        (0)
//     13 u16 header check    (low 16 bits of XXH3_64 over bytes 0..12)
//   record  := recordHeader payload, starting at an 8-byte aligned offset,
//              payload size a multiple of 8
//   recordHeader (40 bytes):
//     0  u32 record magic
//     4  u8  kind            (RecordKind)
//     5  u8  reserved (0), 6 u16 reserved (0)
//     8  u64 payload size    (bytes after the header)
//     16 u64 record offset   (where the record itself starts in the file)
//     24 u64 payload check   (PayloadChecksum below: XXH3_64 over the payload)
//     32 u64 header check    (XXH3_64 over header bytes 0..31)
//
// The header check protects the length, so a damaged length is detected
// before it is used; the stored record offset makes a record copied inside
// another record's payload (a container stored as an attachment) unusable
// anywhere but where it was written.

#include <KEL/KelErrorCode.h>
#include <xxh_x86dispatch.h>
#include <xxhash.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <new>
#include <string>

namespace KEL::container {

inline constexpr std::size_t kMagicSize = 10;
inline constexpr std::array<std::uint8_t, kMagicSize> kFileMagic{'K', 'E', 'L', '_', 'O', 's', 'p', 'r', 'e', 'y'};
inline constexpr std::uint16_t kFormatVersion = 2000;
inline constexpr std::size_t kFileHeaderSize = 15;
inline constexpr std::size_t kFileHeaderCheckedBytes = 13;
inline constexpr std::uint64_t kFirstRecordOffset = 16;

inline constexpr std::uint32_t kRecordMagic = 0x63524B89;  // bytes 89 'K' 'R' 'c'
inline constexpr std::size_t kRecordHeaderSize = 40;
inline constexpr std::size_t kRecordHeaderCheckedBytes = 32;
inline constexpr std::uint64_t kRecordAlignment = 8;
// Blobs start at file offsets that are multiples of this, so views of the
// mapped file are aligned for any element type and for SIMD loads.
inline constexpr std::uint64_t kBlobAlignment = 64;

enum class RecordKind : std::uint8_t {
    kAtom = 1,
    kIndex = 2,
    kFooter = 3,
};

// Atom payload:
//   0  u16 stream id, 2 u16 reserved, 4 u32 frame number,
//   8  i64 time stamp, 16 u32 atom id, 20 u32 layer count
//   then per layer a descriptor:
//     0 guid type (16), 16 guid purpose (16), 32 u16 version, 34 u16 reserved,
//     36 u32 blob count, 40 u32 fields size, 44 u32 reserved,
//     48 fields bytes, padded to 8,
//     then per blob: u64 offset (from the payload start), u64 size
//   then the blobs, each at a file offset aligned to kBlobAlignment,
//   then zero padding to a multiple of 8.
inline constexpr std::size_t kAtomMetaSize = 24;
inline constexpr std::size_t kLayerDescriptorSize = 48;
inline constexpr std::size_t kBlobRefSize = 16;

// Index payload: u64 entry count, then per atom record in file order
//   0 u64 record offset, 8 u32 frame number, 12 u16 stream id, 14 u16 reserved
inline constexpr std::size_t kIndexCountSize = 8;
inline constexpr std::size_t kIndexEntrySize = 16;

// Footer payload: u64 index record offset, u64 atom record count. The footer
// record is the last thing in a closed file, so it sits at EOF - kFooterRecordSize.
inline constexpr std::size_t kFooterPayloadSize = 16;
inline constexpr std::size_t kFooterRecordSize = kRecordHeaderSize + kFooterPayloadSize;

inline constexpr std::uint64_t AlignUp(std::uint64_t value, std::uint64_t alignment) {
    return (value + alignment - 1) / alignment * alignment;
}

inline void PutU16(std::uint8_t* p, std::uint16_t v) {
    p[0] = static_cast<std::uint8_t>(v);
    p[1] = static_cast<std::uint8_t>(v >> 8);
}
inline void PutU32(std::uint8_t* p, std::uint32_t v) {
    for (int i = 0; i < 4; ++i) {
        p[i] = static_cast<std::uint8_t>(v >> (8 * i));
    }
}
inline void PutU64(std::uint8_t* p, std::uint64_t v) {
    for (int i = 0; i < 8; ++i) {
        p[i] = static_cast<std::uint8_t>(v >> (8 * i));
    }
}
inline std::uint16_t GetU16(const std::uint8_t* p) { return static_cast<std::uint16_t>(p[0] | (p[1] << 8)); }
inline std::uint32_t GetU32(const std::uint8_t* p) {
    std::uint32_t v = 0;
    for (int i = 0; i < 4; ++i) {
        v |= static_cast<std::uint32_t>(p[i]) << (8 * i);
    }
    return v;
}
inline std::uint64_t GetU64(const std::uint8_t* p) {
    std::uint64_t v = 0;
    for (int i = 0; i < 8; ++i) {
        v |= static_cast<std::uint64_t>(p[i]) << (8 * i);
    }
    return v;
}

// The dispatching entry points pick the widest vector unit the CPU has
// (SSE2, AVX2 or AVX-512) at run time; the hash value is the same on all.
inline std::uint64_t Checksum(const void* data, std::size_t size) { return XXH3_64bits_dispatch(data, size); }

// The payload check of a record whose payload starts at file offset
// `payloadOffset`. The payload is hashed in two parts, split at the first file
// offset that is a multiple of kBlobAlignment: the XXH3_64 of the part before
// that point seeds the XXH3_64 of the rest. The rest, which holds every blob,
// is thereby read from 64-byte aligned memory in a mapped file; a hash that
// starts at a misaligned address is about a third slower on current x86 cores.
inline std::uint64_t PayloadHeadSize(std::uint64_t payloadOffset) {
    return AlignUp(payloadOffset, kBlobAlignment) - payloadOffset;
}
inline std::uint64_t PayloadChecksum(const std::uint8_t* payload, std::uint64_t size, std::uint64_t payloadOffset) {
    const std::uint64_t head = PayloadHeadSize(payloadOffset) < size ? PayloadHeadSize(payloadOffset) : size;
    return XXH3_64bits_withSeed_dispatch(payload + head, size - head, XXH3_64bits_dispatch(payload, head));
}

// PayloadChecksum computed over a payload given in pieces (the serializer's
// gather list). Throws std::bad_alloc when the hash state cannot be made.
class PayloadHasher {
public:
    explicit PayloadHasher(std::uint64_t payloadOffset)
        : headSize_(PayloadHeadSize(payloadOffset)), state_(XXH3_createState()) {
        if (state_ == nullptr) {
            throw std::bad_alloc();
        }
        // A payload that starts on the alignment boundary has an empty head:
        // the tail, seeded with the hash of nothing, starts at once.
        if (headSize_ == 0) {
            StartTail();
        }
    }
    ~PayloadHasher() { XXH3_freeState(state_); }
    PayloadHasher(const PayloadHasher&) = delete;
    PayloadHasher& operator=(const PayloadHasher&) = delete;

    void Update(const void* data, std::size_t size) {
        const auto* p = static_cast<const std::uint8_t*>(data);
        if (headFill_ < headSize_) {
            const std::size_t take = std::min<std::size_t>(size, headSize_ - headFill_);
            std::memcpy(head_.data() + headFill_, p, take);
            headFill_ += take;
            p += take;
            size -= take;
            if (headFill_ == headSize_) {
                StartTail();
            }
        }
        if (size != 0) {
            XXH3_64bits_update_dispatch(state_, p, size);
        }
    }

    std::uint64_t Digest() {
        if (!tailStarted_) {
            StartTail();
        }
        return XXH3_64bits_digest(state_);
    }

private:
    void StartTail() {
        XXH3_64bits_reset_withSeed(state_, XXH3_64bits_dispatch(head_.data(), headFill_));
        tailStarted_ = true;
    }

    std::array<std::uint8_t, kBlobAlignment> head_{};
    std::size_t headSize_;
    std::size_t headFill_ = 0;
    bool tailStarted_ = false;
    XXH3_state_t* state_;
};

// The 15 header bytes of a file of the given format version.
inline std::array<std::uint8_t, kFileHeaderSize> MakeFileHeader(std::uint16_t version) {
    std::array<std::uint8_t, kFileHeaderSize> h{};
    std::memcpy(h.data(), kFileMagic.data(), kMagicSize);
    PutU16(h.data() + 10, version);
    h[12] = 0;
    PutU16(h.data() + 13, static_cast<std::uint16_t>(Checksum(h.data(), kFileHeaderCheckedBytes)));
    return h;
}

// Checks the file header of `data[0, size)`. Returns 0 and sets `version`,
// or KEL_ERR_NOT_A_CONTAINER, KEL_ERR_CORRUPT (a damaged or cut header) or
// KEL_ERR_UNSUPPORTED_VERSION with `reason` set.
inline KelErrorCode CheckFileHeader(const std::uint8_t* data, std::uint64_t size, std::uint16_t& version,
                                    std::string& reason) {
    version = 0;
    if (size < kFileHeaderSize) {
        const std::size_t n = size < kMagicSize ? static_cast<std::size_t>(size) : kMagicSize;
        if (size != 0 && std::memcmp(data, kFileMagic.data(), n) == 0) {
            reason = "truncated file header (" + std::to_string(size) + " bytes)";
            return KEL_ERR_CORRUPT;
        }
        reason = size == 0 ? std::string("empty file") : "too short (" + std::to_string(size) + " bytes)";
        return KEL_ERR_NOT_A_CONTAINER;
    }
    if (std::memcmp(data, kFileMagic.data(), kMagicSize) != 0) {
        reason = "no container header";
        return KEL_ERR_NOT_A_CONTAINER;
    }
    if (GetU16(data + kFileHeaderCheckedBytes) != static_cast<std::uint16_t>(Checksum(data, kFileHeaderCheckedBytes))) {
        reason = "damaged file header";
        return KEL_ERR_CORRUPT;
    }
    version = GetU16(data + kMagicSize);
    if (version != kFormatVersion) {
        reason =
            "format version " + std::to_string(version) + " (this host reads " + std::to_string(kFormatVersion) + ")";
        return KEL_ERR_UNSUPPORTED_VERSION;
    }
    return KEL_OK;
}

struct RecordHeader {
    RecordKind kind = RecordKind::kAtom;
    std::uint64_t payloadSize = 0;
    std::uint64_t offset = 0;
    std::uint64_t payloadChecksum = 0;

    std::uint64_t TotalSize() const { return kRecordHeaderSize + payloadSize; }
};

inline void EncodeRecordHeader(const RecordHeader& h, std::uint8_t* out) {
    PutU32(out, kRecordMagic);
    out[4] = static_cast<std::uint8_t>(h.kind);
    out[5] = 0;
    PutU16(out + 6, 0);
    PutU64(out + 8, h.payloadSize);
    PutU64(out + 16, h.offset);
    PutU64(out + 24, h.payloadChecksum);
    PutU64(out + 32, Checksum(out, kRecordHeaderCheckedBytes));
}

// Result of looking at kRecordHeaderSize bytes that should be a record header.
enum class HeaderStatus {
    kValid,
    kNoMagic,      // not the start of a record
    kBadChecksum,  // a record header, damaged
    kMisplaced,    // intact, but written for another offset or malformed
};

// Decodes the header at `p`, which lies at file offset `offset`. Only the
// header's own bytes are read; the caller checks the payload against the
// file's size.
inline HeaderStatus DecodeRecordHeader(const std::uint8_t* p, std::uint64_t offset, RecordHeader& out) {
    if (GetU32(p) != kRecordMagic) {
        return HeaderStatus::kNoMagic;
    }
    if (GetU64(p + 32) != Checksum(p, kRecordHeaderCheckedBytes)) {
        return HeaderStatus::kBadChecksum;
    }
    out.kind = static_cast<RecordKind>(p[4]);
    out.payloadSize = GetU64(p + 8);
    out.offset = GetU64(p + 16);
    out.payloadChecksum = GetU64(p + 24);
    if (out.offset != offset || out.payloadSize % kRecordAlignment != 0 || p[5] != 0 || GetU16(p + 6) != 0) {
        return HeaderStatus::kMisplaced;
    }
    return HeaderStatus::kValid;
}

}  // namespace KEL::container
