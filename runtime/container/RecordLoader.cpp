#include "container/RecordLoader.h"

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

ReadAhead::ReadAhead(std::shared_ptr<const ReadableFile> file, std::shared_ptr<BufferPool> pool, std::uint64_t fileId)
    : file_(std::move(file)), pool_(std::move(pool)), fileId_(fileId) {}

ReadAhead::~ReadAhead() {
    {
        std::lock_guard lock(mutex_);
        stop_ = true;
    }
    changed_.notify_all();
    if (worker_.joinable()) {
        worker_.join();
    }
}

void ReadAhead::Schedule(const RecordRequest& request, std::uint64_t bytes) {
    {
        std::lock_guard lock(mutex_);
        if (!entries_.try_emplace(request.offset, Entry{request, bytes, State::kQueued, nullptr}).second) {
            return;
        }
        queue_.push_back(request.offset);
        pendingBytes_ += bytes;
        if (!worker_.joinable()) {
            worker_ = std::thread([this] { Work(); });
        }
    }
    changed_.notify_all();
}

std::unique_ptr<LoadedRecord> ReadAhead::Take(std::uint64_t offset) {
    std::unique_lock lock(mutex_);
    auto it = entries_.find(offset);
    if (it == entries_.end()) {
        return nullptr;
    }
    if (it->second.state == State::kQueued) {
        // Not started: read it here while the worker goes on with the next.
        const RecordRequest request = it->second.request;
        pendingBytes_ -= it->second.bytes;
        entries_.erase(it);
        lock.unlock();
        return std::make_unique<LoadedRecord>(ReadAtomRecord(*file_, *pool_, fileId_, request));
    }
    changed_.wait(lock, [&] {
        it = entries_.find(offset);
        return it == entries_.end() || it->second.state == State::kDone;
    });
    if (it == entries_.end()) {
        return nullptr;
    }
    auto result = std::move(it->second.result);
    pendingBytes_ -= it->second.bytes;
    entries_.erase(it);
    return result;
}

void ReadAhead::DiscardBefore(std::uint64_t offset) {
    std::lock_guard lock(mutex_);
    for (auto it = entries_.begin(); it != entries_.end();) {
        // A record being read is left to the worker, which keeps it until
        // taken or discarded later.
        if (it->first < offset && it->second.state != State::kReading) {
            pendingBytes_ -= it->second.bytes;
            it = entries_.erase(it);
        } else {
            ++it;
        }
    }
}

bool ReadAhead::IsScheduled(std::uint64_t offset) const {
    std::lock_guard lock(mutex_);
    return entries_.count(offset) != 0;
}

std::uint64_t ReadAhead::PendingBytes() const {
    std::lock_guard lock(mutex_);
    return pendingBytes_;
}

void ReadAhead::Work() {
    std::unique_lock lock(mutex_);
    while (true) {
        changed_.wait(lock, [this] { return stop_ || !queue_.empty(); });
        if (stop_) {
            return;
        }
        const std::uint64_t offset = queue_.front();
        queue_.pop_front();
        auto it = entries_.find(offset);
        if (it == entries_.end() || it->second.state != State::kQueued) {
            continue;  // taken or discarded meanwhile
        }
        it->second.state = State::kReading;
        const RecordRequest request = it->second.request;
        lock.unlock();
        auto result = std::make_unique<LoadedRecord>();
        try {
            *result = ReadAtomRecord(*file_, *pool_, fileId_, request);
        } catch (const std::bad_alloc&) {
            result->error = "out of memory";
        }
        lock.lock();
        it = entries_.find(offset);
        it->second.result = std::move(result);
        it->second.state = State::kDone;
        changed_.notify_all();
    }
}

}  // namespace KEL::container
