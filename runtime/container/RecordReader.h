#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "container/AtomRecord.h"
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

    friend bool operator==(const RecordRequest&, const RecordRequest&) = default;
};

// An atom record read into memory.
struct LoadedRecord {
    // Owns the memory `payload` points into (a pool block).
    std::shared_ptr<std::uint8_t> memory;
    const std::uint8_t* payload = nullptr;
    RecordHeader header;
    bool checksumVerified = false;
    // The read itself failed (an I/O error): the record may read well later.
    bool transient = false;
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

// An atom record read and decoded.
struct FetchedAtom {
    LoadedRecord record;
    // The atom, when the record reads and decodes; otherwise `record.error`
    // (the record cannot be read or used) or `reason` (it does not decode)
    // says why.
    std::shared_ptr<Atom> atom;
    std::string reason;
};

// Reads the atom record that `request` points to and decodes it (its
// compressed blobs on the process's WorkerPool). Touches nothing but the
// file, the pool and what it returns, so it may run on any thread.
FetchedAtom FetchAtom(const ReadableFile& file, BufferPool& pool, std::uint64_t fileId, const RecordRequest& request);

// An atom record's header and layer descriptors, read without its blobs.
struct RecordLayout {
    RecordHeader header;
    bool headerValid = false;
    std::vector<LayerListing> layers;
    // The read itself failed (an I/O error): the record may read well later.
    bool transient = false;
    // Why the record's header or layer descriptors cannot be used ("" when
    // they can).
    std::string error;
};

// Reads the header and the layer descriptors of the atom record that
// `request` points to, a few KiB at most unless the descriptors are larger;
// the payload checksum is not verified (`request.verify` is ignored).
// Never throws for damage or short reads; throws std::bad_alloc.
RecordLayout ReadAtomRecordLayout(const ReadableFile& file, std::uint64_t fileId, const RecordRequest& request);

}  // namespace KEL::container
