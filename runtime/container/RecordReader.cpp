#include "container/RecordReader.h"

#include <algorithm>
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
    const std::uint64_t want =
        std::clamp<std::uint64_t>(request.sizeHint != 0 ? request.sizeHint : kFirstRead, kRecordHeaderSize, room);
    auto block = pool.Get(lead + want);
    std::uint8_t* base = block.get();
    const std::uint64_t first = std::min(want, kChunk);
    const std::int64_t got = file.ReadAt(offset - lead, base, lead + first);
    if (got < static_cast<std::int64_t>(lead + kRecordHeaderSize)) {
        out.error = ReadError(got);
        return out;
    }
    const std::uint64_t have = static_cast<std::uint64_t>(got) - lead;

    RecordHeader& header = out.header;
    if (DecodeRecordHeader(base + lead, offset, header) != HeaderStatus::kValid) {
        out.error = "damaged record header";
        return out;
    }
    if (header.fileId != fileId) {
        out.error = "record of another file";
        return out;
    }
    if (header.kind != RecordKind::kAtom) {
        out.error = "not an atom record";
        return out;
    }
    if (header.payloadSize > room - kRecordHeaderSize) {
        out.error = "record runs past the end of the records";
        return out;
    }
    const std::uint64_t total = header.TotalSize();
    if (total > want) {
        // The size was not known (or the hint was short): move what was read
        // into a block that holds the whole record.
        auto bigger = pool.Get(lead + total);
        std::memcpy(bigger.get(), base, lead + have);
        block = std::move(bigger);
        base = block.get();
    }

    std::unique_ptr<PayloadHasher> hasher;
    if (request.verify) {
        hasher = std::make_unique<PayloadHasher>(offset + kRecordHeaderSize);
        const std::uint64_t ready = std::min(have, total);
        hasher->Update(base + lead + kRecordHeaderSize, ready - kRecordHeaderSize);
    }
    for (std::uint64_t pos = have; pos < total;) {
        const std::uint64_t size = std::min(kChunk, total - pos);
        const std::int64_t n = file.ReadAt(offset + pos, base + lead + pos, size);
        if (n != static_cast<std::int64_t>(size)) {
            out.error = ReadError(n);
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

}  // namespace KEL::container
