#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "container/ContainerFormat.h"
#include "container/ContainerIndex.h"
#include "container/ReadableFile.h"

namespace KEL::container {

// A record read whole, its payload in memory from the shared buffer pool.
struct WholeRecord {
    RecordHeader header;
    std::shared_ptr<std::uint8_t> memory;
    const std::uint8_t* payload = nullptr;
};

// Reads the whole record of `kind` at `offset` (header and payload, its
// checksum verified) of the file `fileId` (0: any file). The record must end
// by `limit`, and its payload may hold at most `maxPayload` bytes (what the
// record can hold at most by what refers to it; nothing larger is allocated).
// False with `reason` set when it cannot be read or is not intact.
bool ReadWholeRecord(const ReadableFile& file, std::uint64_t offset, std::uint64_t limit, RecordKind kind,
                     std::uint64_t fileId, std::uint64_t maxPayload, WholeRecord& out, std::string& reason);

enum class IndexStatus {
    kValid,
    kAbsent,   // no footer at the end: the file was not closed (or was cut)
    kDamaged,  // a footer, but it or the index fails its checks
};

// The index of a closed file. The entries stay encoded in the memory they
// were read into (EntryAt decodes one): a large index is not copied again.
struct ClosedIndex {
    std::uint64_t fileId = 0;
    std::uint64_t indexOffset = 0;
    std::uint64_t footerOffset = 0;
    std::shared_ptr<std::uint8_t> memory;
    const std::uint8_t* entries = nullptr;
    std::uint64_t count = 0;
};

// Reads the footer at the end of a file of `size` bytes and the index it
// points to, both verified, and checks every entry. `fileId` 0 accepts the
// footer's identity (for a file whose header is lost). Reads only the footer
// and the index.
IndexStatus ReadIndex(const ReadableFile& file, std::uint64_t size, std::uint64_t fileId, ClosedIndex& out,
                      std::string& reason);

// The atoms that the checkpoints of an unclosed file list.
struct CheckpointChain {
    std::uint64_t lastOffset = 0;  // the newest checkpoint
    std::uint64_t end = 0;         // where the records after it start
    std::vector<IndexEntry> entries;
};

// Follows the newer of the two checkpoint slots `slots` (the bytes at
// kCheckpointSlotOffsets[0], 2 * kCheckpointSlotSize of them) to the newest
// checkpoint and from there back through every earlier one. Falls back to the
// other slot when the newer one leads nowhere (a slot may be written before
// its checkpoint reaches the disk). False when no slot leads to an intact
// chain.
bool ReadCheckpoints(const ReadableFile& file, std::uint64_t size, std::uint64_t fileId, const std::uint8_t* slots,
                     CheckpointChain& out, std::string& reason);

}  // namespace KEL::container
