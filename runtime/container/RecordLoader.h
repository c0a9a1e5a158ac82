#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>

#include "container/BufferPool.h"
#include "container/ContainerFormat.h"
#include "container/ReadableFile.h"

namespace KEL::container {

// Where an atom record is and how much of the file may belong to it.
struct RecordRequest {
    std::uint64_t offset = 0;
    // Bytes from `offset` that hold the record and perhaps more (the distance
    // to the next listed record); 0 when unknown.
    std::uint64_t sizeHint = 0;
    // The record must end at or before this offset.
    std::uint64_t limit = 0;
    bool verify = true;
};

// An atom record read into memory.
struct LoadedRecord {
    // Owns the memory `payload` points into (a pool block).
    std::shared_ptr<std::uint8_t> memory;
    const std::uint8_t* payload = nullptr;
    RecordHeader header;
    bool checksumVerified = false;
    // Why the record cannot be used ("" when it can).
    std::string error;
};

// Reads one atom record: header and payload with positioned reads into a
// pool block, in chunks, each chunk hashed while it is still in the cache
// when `verify` is set. The block keeps the file offsets' alignment modulo
// kBlobAlignment, so blobs come out 64-byte aligned. Never throws for damage
// or short reads (the error says what was wrong); throws std::bad_alloc.
LoadedRecord ReadAtomRecord(const ReadableFile& file, BufferPool& pool, std::uint64_t fileId,
                            const RecordRequest& request);

// Reads atom records ahead of their use on a thread of its own, so that
// reading and checking the next records overlaps with the use of the
// current one (and, on a second core, with reading it).
//
// Design. The owner (a reader, used by one thread at a time) schedules
// records it expects to need; the worker thread takes them in order and
// reads them. Take() hands over a record: one still waiting is taken back
// and read by the caller itself (so both threads read, each its own record);
// one being read is waited for; one done is returned at once. Every record
// scheduled and not taken counts against a byte budget, which the owner
// consults before scheduling more, and Discard() releases records the owner
// will no longer ask for. One mutex guards the queue and the results; the
// worker reads without holding it. The destructor stops the worker after
// its current record and joins it.
class ReadAhead {
public:
    ReadAhead(std::shared_ptr<const ReadableFile> file, std::shared_ptr<BufferPool> pool, std::uint64_t fileId);
    ~ReadAhead();
    ReadAhead(const ReadAhead&) = delete;
    ReadAhead& operator=(const ReadAhead&) = delete;

    // Queues `request` unless it is already known; starts the worker on first use.
    void Schedule(const RecordRequest& request, std::uint64_t bytes);
    // The record at `offset` if it was scheduled: read by the worker (waiting
    // for it if needed) or, if the worker has not started it, read here.
    // Empty when it was never scheduled.
    std::unique_ptr<LoadedRecord> Take(std::uint64_t offset);
    // Forgets scheduled records at offsets below `offset`.
    void DiscardBefore(std::uint64_t offset);
    bool IsScheduled(std::uint64_t offset) const;
    // Bytes of records scheduled and not yet taken.
    std::uint64_t PendingBytes() const;

private:
    enum class State { kQueued, kReading, kDone };
    struct Entry {
        RecordRequest request;
        std::uint64_t bytes = 0;
        State state = State::kQueued;
        std::unique_ptr<LoadedRecord> result;
    };

    void Work();

    const std::shared_ptr<const ReadableFile> file_;
    const std::shared_ptr<BufferPool> pool_;
    const std::uint64_t fileId_;
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::unordered_map<std::uint64_t, Entry> entries_;
    std::deque<std::uint64_t> queue_;
    std::uint64_t pendingBytes_ = 0;
    bool stop_ = false;
    std::thread worker_;
};

}  // namespace KEL::container
