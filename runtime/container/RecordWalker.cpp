#include "container/RecordWalker.h"

#include <algorithm>
#include <memory>
#include <vector>

namespace KEL::container {

namespace {

constexpr std::size_t kMinRead = 4096;
constexpr std::size_t kMaxRead = std::size_t{1} << 20;

// A window on the file that refills itself with positioned reads: small ones
// after a jump (a header walk skips whole payloads), doubling while reads
// follow each other (a search through damaged bytes, a run of small records).
class Window {
public:
    Window(const ReadableFile& file, std::uint64_t end) : file_(file), end_(end) {}

    // The bytes [offset, offset + size) or nullptr when they lie beyond the
    // end of the walk or cannot be read. Valid until the next call.
    const std::uint8_t* Get(std::uint64_t offset, std::size_t size) {
        if (offset >= start_ && offset - start_ + size <= length_) {
            return buffer_.data() + (offset - start_);
        }
        if (offset > end_ || end_ - offset < size) {
            return nullptr;
        }
        readSize_ = offset == start_ + length_ ? std::min(readSize_ * 2, kMaxRead) : kMinRead;
        const std::size_t want = static_cast<std::size_t>(
            std::min<std::uint64_t>(end_ - offset, std::max<std::size_t>(std::min(size, kMaxRead), readSize_)));
        if (want > buffer_.size()) {
            buffer_.resize(want);
        }
        const std::int64_t got = file_.ReadAt(offset, buffer_.data(), want);
        start_ = offset;
        length_ = got > 0 ? static_cast<std::uint64_t>(got) : 0;
        return length_ >= size ? buffer_.data() : nullptr;
    }

private:
    const ReadableFile& file_;
    const std::uint64_t end_;
    std::vector<std::uint8_t> buffer_;
    std::uint64_t start_ = 0;
    std::uint64_t length_ = 0;
    std::size_t readSize_ = kMinRead;
};

enum class Found { kOurs, kForeign, kNone };

// Looks at the header at `offset`.
Found Inspect(Window& window, std::uint64_t offset, std::uint64_t fileId, RecordHeader& header) {
    const std::uint8_t* p = window.Get(offset, kRecordHeaderSize);
    if (p == nullptr || DecodeRecordHeader(p, offset, header) != HeaderStatus::kValid) {
        return Found::kNone;
    }
    return fileId == 0 || header.fileId == fileId ? Found::kOurs : Found::kForeign;
}

bool PayloadValid(const ReadableFile& file, std::uint64_t offset, const RecordHeader& header) {
    constexpr std::size_t kChunk = std::size_t{256} << 10;
    std::vector<std::uint8_t> chunk(static_cast<std::size_t>(std::min<std::uint64_t>(kChunk, header.payloadSize)));
    PayloadHasher hasher(offset + kRecordHeaderSize);
    for (std::uint64_t pos = 0; pos < header.payloadSize;) {
        const std::size_t size = static_cast<std::size_t>(std::min<std::uint64_t>(kChunk, header.payloadSize - pos));
        if (!file.ReadExactly(offset + kRecordHeaderSize + pos, chunk.data(), size)) {
            return false;
        }
        hasher.Update(chunk.data(), size);
        pos += size;
    }
    return hasher.Digest() == header.payloadChecksum;
}

bool AllZero(Window& window, std::uint64_t from, std::uint64_t to) {
    for (std::uint64_t pos = from; pos < to;) {
        const std::size_t size = static_cast<std::size_t>(std::min<std::uint64_t>(to - pos, kMaxRead));
        const std::uint8_t* p = window.Get(pos, size);
        if (p == nullptr || !std::all_of(p, p + size, [](std::uint8_t b) { return b == 0; })) {
            return false;
        }
        pos += size;
    }
    return true;
}

}  // namespace

std::uint64_t WalkRecords(const ReadableFile& file, const WalkRange& range, const WalkVisitor& visitor) {
    Window window(file, range.end);
    std::uint64_t pos = std::max(range.begin, kFirstRecordOffset);
    while (pos < range.end) {
        const std::uint64_t remaining = range.end - pos;
        if (remaining < kRecordHeaderSize) {
            visitor.onTail(pos, remaining);
            return pos;
        }
        RecordHeader header;
        const Found here = Inspect(window, pos, range.fileId, header);
        if (here == Found::kOurs) {
            if (header.payloadSize > remaining - kRecordHeaderSize) {
                visitor.onTail(pos, remaining);
                return pos;
            }
            visitor.onRecord(pos, header, !range.verifyPayloads || PayloadValid(file, pos, header));
            pos += header.TotalSize();
            continue;
        }
        // Search for the next intact header of this file. Records of another
        // file met on the way are part of the damage: their lengths say
        // nothing about where this file's records are.
        std::uint64_t foreign = here == Found::kForeign ? 1 : 0;
        std::uint64_t next = pos + kRecordAlignment;
        for (; next < range.end && range.end - next >= kRecordHeaderSize; next += kRecordAlignment) {
            const std::uint8_t* magic = window.Get(next, 4);
            if (magic == nullptr || GetU32(magic) != kRecordMagic) {
                continue;
            }
            const Found found = Inspect(window, next, range.fileId, header);
            if (found == Found::kOurs) {
                break;
            }
            foreign += found == Found::kForeign ? 1 : 0;
        }
        if (next < range.end && range.end - next >= kRecordHeaderSize) {
            visitor.onDamage(pos, next - pos, foreign);
            pos = next;
            continue;
        }
        if (foreign == 0 && AllZero(window, pos, range.end)) {
            visitor.onTail(pos, remaining);
            return pos;
        }
        visitor.onDamage(pos, remaining, foreign);
        return range.end;
    }
    return pos;
}

}  // namespace KEL::container
