#include "container/RecordReader.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <system_error>

namespace KEL::container {

namespace {

// Reads are made in chunks of this size, each hashed right after it arrives,
// while it is still in the core's cache.
constexpr std::uint64_t kChunk = std::uint64_t{256} << 10;
// The first read of a record whose size is not known.
constexpr std::uint64_t kFirstRead = std::uint64_t{64} << 10;

std::string ReadError(std::int64_t result) {
    return result < 0 ? "cannot read: " + std::generic_category().message(static_cast<int>(-result))
                      : std::string("the file ends inside the record");
}

// Decodes and checks the header of an atom record at `offset` whose record
// may take at most `room` bytes.
bool CheckHeader(const std::uint8_t* bytes, std::uint64_t offset, std::uint64_t fileId, std::uint64_t room,
                 RecordHeader& header, std::string& error) {
    if (DecodeRecordHeader(bytes, offset, header) != HeaderStatus::kValid) {
        error = "damaged record header";
    } else if (header.fileId != fileId) {
        error = "record of another file";
    } else if (header.kind != RecordKind::kAtom) {
        error = "not an atom record";
    } else if (header.payloadSize > room - kRecordHeaderSize) {
        error = "record runs past the end of the records";
    } else {
        return true;
    }
    return false;
}

}  // namespace

LoadedRecord ReadAtomRecord(const ReadableFile& file, BufferPool& pool, std::uint64_t fileId,
                            const RecordRequest& request) {
    LoadedRecord out;
    const std::uint64_t offset = request.offset;
    if (offset > request.limit || request.limit - offset < kRecordHeaderSize) {
        out.error = "record runs past the end of the records";
        return out;
    }
    const std::uint64_t room = request.limit - offset;
    const std::uint64_t lead = offset % kBlobAlignment;
    std::uint64_t want =
        std::clamp<std::uint64_t>(request.sizeHint != 0 ? request.sizeHint : kFirstRead, kRecordHeaderSize, room);
    RecordHeader& header = out.header;
    std::shared_ptr<std::uint8_t> block;
    std::uint64_t have = 0;
    if (want > kChunk) {
        // A hint is the distance to the next listed record or to the end of
        // what was walked, and may span damage, zeros or a hole of a sparse
        // file: the block is sized by the record's own header, read first.
        std::array<std::uint8_t, kRecordHeaderSize> bytes{};
        const std::int64_t got = file.ReadAt(offset, bytes.data(), bytes.size());
        if (got != static_cast<std::int64_t>(bytes.size())) {
            out.error = ReadError(got);
            out.transient = got < 0;
            return out;
        }
        if (!CheckHeader(bytes.data(), offset, fileId, room, header, out.error)) {
            return out;
        }
        want = header.TotalSize();
        block = pool.Get(lead + want);
    } else {
        block = pool.Get(lead + want);
        const std::uint64_t first = std::min(want, kChunk);
        const std::int64_t got = file.ReadAt(offset - lead, block.get(), lead + first);
        if (got < static_cast<std::int64_t>(lead + kRecordHeaderSize)) {
            out.error = ReadError(got);
            out.transient = got < 0;
            return out;
        }
        have = static_cast<std::uint64_t>(got) - lead;
        if (!CheckHeader(block.get() + lead, offset, fileId, room, header, out.error)) {
            return out;
        }
    }
    std::uint8_t* base = block.get();
    const std::uint64_t total = header.TotalSize();
    if (total > want) {
        // The hint was short: move what was read into a block that holds
        // the whole record.
        auto bigger = pool.Get(lead + total);
        std::memcpy(bigger.get(), base, lead + have);
        block = std::move(bigger);
        base = block.get();
    }

    std::unique_ptr<PayloadHasher> hasher;
    if (request.verify) {
        hasher = std::make_unique<PayloadHasher>(offset + kRecordHeaderSize);
        const std::uint64_t ready = std::min(have, total);
        if (ready > kRecordHeaderSize) {
            hasher->Update(base + lead + kRecordHeaderSize, ready - kRecordHeaderSize);
        }
    }
    if (have == 0) {
        // Only the header was read so far (into the stack): the first piece
        // reads it again into the block, the payload's hashing starts after it.
        const std::uint64_t size = std::min(kChunk, total);
        const std::int64_t n = file.ReadAt(offset - lead, base, lead + size);
        if (n != static_cast<std::int64_t>(lead + size)) {
            out.error = ReadError(n);
            out.transient = n < 0;
            return out;
        }
        if (hasher) {
            hasher->Update(base + lead + kRecordHeaderSize, size - kRecordHeaderSize);
        }
        have = size;
    }
    for (std::uint64_t pos = have; pos < total;) {
        const std::uint64_t size = std::min(kChunk, total - pos);
        const std::int64_t n = file.ReadAt(offset + pos, base + lead + pos, size);
        if (n != static_cast<std::int64_t>(size)) {
            out.error = ReadError(n);
            out.transient = n < 0;
            return out;
        }
        if (hasher) {
            hasher->Update(base + lead + pos, size);
        }
        pos += size;
    }
    if (hasher) {
        if (hasher->Digest() != header.payloadChecksum) {
            out.error = "checksum mismatch";
            return out;
        }
        out.checksumVerified = true;
    }
    out.payload = base + lead + kRecordHeaderSize;
    out.memory = std::move(block);
    return out;
}

FetchedAtom FetchAtom(const ReadableFile& file, BufferPool& pool, std::uint64_t fileId, const RecordRequest& request) {
    FetchedAtom out;
    out.record = ReadAtomRecord(file, pool, fileId, request);
    if (out.record.error.empty()) {
        out.atom = DecodeAtomRecord(out.record.memory, out.record.payload, out.record.header.payloadSize, out.reason);
    }
    return out;
}

RecordLayout ReadAtomRecordLayout(const ReadableFile& file, std::uint64_t fileId, const RecordRequest& request) {
    RecordLayout out;
    const std::uint64_t offset = request.offset;
    if (offset > request.limit || request.limit - offset < kRecordHeaderSize) {
        out.error = "record runs past the end of the records";
        return out;
    }
    const std::uint64_t room = request.limit - offset;
    // Descriptors of a few layers and their fields fit in the first read.
    constexpr std::uint64_t kLayoutRead = 4096;
    std::vector<std::uint8_t> bytes(std::min<std::uint64_t>(
        {room, request.sizeHint != 0 ? std::max<std::uint64_t>(request.sizeHint, kRecordHeaderSize) : room,
         kRecordHeaderSize + kLayoutRead}));
    const std::int64_t got = file.ReadAt(offset, bytes.data(), bytes.size());
    if (got < static_cast<std::int64_t>(kRecordHeaderSize)) {
        out.error = ReadError(got);
        out.transient = got < 0;
        return out;
    }
    std::uint64_t have = static_cast<std::uint64_t>(got);
    if (!CheckHeader(bytes.data(), offset, fileId, room, out.header, out.error)) {
        return out;
    }
    out.headerValid = true;
    const std::uint64_t payloadSize = out.header.payloadSize;
    for (;;) {
        AtomKey key;
        std::uint64_t needed = 0;
        const std::uint64_t available = std::min(have - kRecordHeaderSize, payloadSize);
        const LayoutStatus status = ListAtomLayers(bytes.data() + kRecordHeaderSize, available, payloadSize, key,
                                                   out.layers, needed, out.error);
        if (status == LayoutStatus::kMalformed) {
            return out;
        }
        if (status == LayoutStatus::kListed) {
            const AtomKey& stored = out.header.key;
            if (key.streamId != stored.streamId || key.frameNr != stored.frameNr || key.timeStamp != stored.timeStamp) {
                out.error = "record header and payload disagree";
            }
            return out;
        }
        // The descriptors reach further: read up to where they end, and a
        // little beyond for the next ones.
        const std::uint64_t want = std::min(kRecordHeaderSize + needed + kLayoutRead, out.header.TotalSize());
        bytes.resize(want);
        const std::int64_t more = file.ReadAt(offset + have, bytes.data() + have, want - have);
        if (more != static_cast<std::int64_t>(want - have)) {
            out.error = ReadError(more);
            out.transient = more < 0;
            return out;
        }
        have = want;
    }
}

}  // namespace KEL::container
