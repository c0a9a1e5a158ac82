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
        // A read that failed is followed by small ones, so that what cannot
        // be read is passed over a page at a time.
        readSize_ = offset == start_ + length_ && length_ != 0 ? std::min(readSize_ * 2, kMaxRead) : kMinRead;
        const std::size_t want = static_cast<std::size_t>(
            std::min<std::uint64_t>(end_ - offset, std::max<std::size_t>(std::min(size, kMaxRead), readSize_)));
        if (want > buffer_.size()) {
            buffer_.resize(want);
        }
        const std::int64_t got = file_.ReadAt(offset, buffer_.data(), want);
        start_ = offset;
        length_ = got > 0 ? static_cast<std::uint64_t>(got) : 0;
        if (length_ < size) {
            readSize_ = kMinRead;
        }
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

// Checks a payload in pieces read into `chunk`, which one walk keeps for all
// its records: a buffer allocated per record costs page faults on every
// record wherever malloc hands out blocks of this size as fresh mappings
// (glibc does so once a process sets MALLOC_TRIM_THRESHOLD_, as Dask's worker
// processes do: verification there was 1.6 times slower).
bool PayloadValid(const ReadableFile& file, std::uint64_t offset, const RecordHeader& header,
                  std::vector<std::uint8_t>& chunk) {
    constexpr std::size_t kChunk = std::size_t{256} << 10;
    const auto needed = static_cast<std::size_t>(std::min<std::uint64_t>(kChunk, header.payloadSize));
    if (chunk.size() < needed) {
        chunk.resize(needed);
    }
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

bool AllZero(const std::uint8_t* p, std::size_t size) {
    return std::all_of(p, p + size, [](std::uint8_t b) { return b == 0; });
}

// Where the search for the next intact header of the file ended.
struct SearchResult {
    std::uint64_t next = 0;     // the header found, or the end of the walk
    std::uint64_t foreign = 0;  // intact records of another file passed over
    bool allZero = true;        // every byte passed over was zero (or a hole)
};

// Searches (from, end) at record-aligned offsets for the next intact header
// of the file (the bytes at `from` itself are checked for zeros only), one
// window at a time: each byte is read once, and whether all of them are zero
// is learnt on the way. A hole of a sparse file is skipped without reading
// it, and what cannot be read (an I/O error, a file shortened meanwhile) is
// passed over a page at a time, so the search ends in time proportional to
// the data, not to the number of offsets.
SearchResult SearchNextHeader(const ReadableFile& file, Window& window, std::uint64_t from, std::uint64_t end,
                              std::uint64_t fileId) {
    SearchResult result;
    std::uint64_t pos = from;
    std::uint64_t smallReadsUntil = 0;
    while (pos < end && end - pos >= kRecordHeaderSize) {
        const std::size_t step = pos < smallReadsUntil ? kMinRead : kMaxRead;
        const auto size = static_cast<std::size_t>(std::min<std::uint64_t>(end - pos, step));
        const std::uint8_t* p = window.Get(pos, size);
        if (p == nullptr) {
            result.allZero = false;
            if (file.CurrentSize() <= pos) {
                break;  // shortened since the walk began: nothing more to read
            }
            if (step == kMaxRead) {
                smallReadsUntil = pos + kMaxRead;
            } else {
                pos += size;
            }
            continue;
        }
        std::size_t i = 0;
        for (; i + kRecordHeaderSize <= size; i += kRecordAlignment) {
            if (GetU32(p + i) != kRecordMagic || pos + i == from) {
                continue;
            }
            RecordHeader header;
            if (DecodeRecordHeader(p + i, pos + i, header) != HeaderStatus::kValid) {
                continue;
            }
            if (fileId == 0 || header.fileId == fileId) {
                result.allZero = result.allZero && AllZero(p, i);
                result.next = pos + i;
                return result;
            }
            ++result.foreign;
        }
        const bool zero = AllZero(p, i);
        result.allZero = result.allZero && zero;
        pos += i;
        if (zero && pos < end) {
            // Past a zero window, a hole of a sparse file need not be read.
            const std::uint64_t data = std::min(file.NextData(pos), end);
            pos = std::max(pos, data - data % kRecordAlignment);
        }
    }
    if (result.allZero && pos < end) {
        // The last few bytes, too short for a header.
        const auto size = static_cast<std::size_t>(end - pos);
        const std::uint8_t* p = window.Get(pos, size);
        result.allZero = p != nullptr && AllZero(p, size);
    }
    result.next = end;
    return result;
}

}  // namespace

std::uint64_t WalkRecords(const ReadableFile& file, const WalkRange& range, const WalkVisitor& visitor) {
    Window window(file, range.end);
    std::vector<std::uint8_t> chunk;
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
            visitor.onRecord(pos, header, !range.verifyPayloads || PayloadValid(file, pos, header, chunk));
            pos += header.TotalSize();
            continue;
        }
        // Search for the next intact header of this file. Records of another
        // file met on the way are part of the damage: their lengths say
        // nothing about where this file's records are.
        const SearchResult found = SearchNextHeader(file, window, pos, range.end, range.fileId);
        const std::uint64_t foreign = found.foreign + (here == Found::kForeign ? 1 : 0);
        if (found.next < range.end) {
            visitor.onDamage(pos, found.next - pos, foreign);
            pos = found.next;
            continue;
        }
        if (foreign == 0 && here == Found::kNone && found.allZero) {
            visitor.onTail(pos, remaining);
            return pos;
        }
        // Damage up to the end: a later walk of the grown file starts at
        // its beginning again, because a writer that is still at work may
        // yet complete a record there (pages arriving out of order, a
        // record being written, a failed write that could not be cut back).
        visitor.onDamage(pos, remaining, foreign);
        return pos;
    }
    return pos;
}

}  // namespace KEL::container
