#pragma once

// The checksums of the container: XXH3-64 through xxHash's run-time dispatch
// to the widest vector unit the CPU has (SSE2, AVX2 or AVX-512; the value is
// the same on all).

#include <xxh_x86dispatch.h>
#include <xxhash.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <new>

#include "container/ByteOrder.h"

namespace KEL::container {

// Blobs start at file offsets that are multiples of this, so that payload
// memory read with the same alignment keeps them aligned for any element
// type and for SIMD loads.
inline constexpr std::uint64_t kBlobAlignment = 64;

inline std::uint64_t Checksum(const void* data, std::size_t size) { return XXH3_64bits_dispatch(data, size); }
inline std::uint64_t Checksum(const void* data, std::size_t size, std::uint64_t seed) {
    return XXH3_64bits_withSeed_dispatch(data, size, seed);
}

// The payload check of a record whose payload starts at file offset
// `payloadOffset`. The payload is hashed in two parts, split at the first file
// offset that is a multiple of kBlobAlignment: the XXH3_64 of the part before
// that point seeds the XXH3_64 of the rest. The rest, which holds every blob,
// is thereby hashed from 64-byte aligned memory; a hash that starts at a
// misaligned address is about a third slower on current x86 cores.
inline std::uint64_t PayloadHeadSize(std::uint64_t payloadOffset) {
    return AlignUp(payloadOffset, kBlobAlignment) - payloadOffset;
}
inline std::uint64_t PayloadChecksum(const std::uint8_t* payload, std::uint64_t size, std::uint64_t payloadOffset) {
    const std::uint64_t head = std::min(PayloadHeadSize(payloadOffset), size);
    return Checksum(payload + head, size - head, Checksum(payload, head));
}

// PayloadChecksum over a payload given in consecutive pieces (the
// serializer's gather list, the reader's chunked reads). Throws
// std::bad_alloc when the hash state cannot be made.
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
        XXH3_64bits_reset_withSeed(state_, Checksum(head_.data(), headFill_));
        tailStarted_ = true;
    }

    std::array<std::uint8_t, kBlobAlignment> head_{};
    std::size_t headSize_;
    std::size_t headFill_ = 0;
    bool tailStarted_ = false;
    XXH3_state_t* state_;
};

}  // namespace KEL::container
