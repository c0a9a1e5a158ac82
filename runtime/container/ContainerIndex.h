#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "container/ContainerFormat.h"

namespace KEL::container {

// Where one atom record lives and what it holds, as the index written at
// close and the checkpoints written on the way list it.
struct IndexEntry {
    std::uint64_t offset = 0;
    std::int64_t timeStamp = 0;
    std::uint32_t frameNr = 0;
    std::uint16_t streamId = 0;
};

// A whole record: its header for file offset `offset` of the file
// `fileId`, followed by `payload` (whose size must be a multiple of 8).
std::vector<std::uint8_t> SealRecord(RecordKind kind, const std::vector<std::uint8_t>& payload, std::uint64_t offset,
                                     std::uint64_t fileId);

// The index record and the footer record that end a closed file; the index
// record starts at `indexOffset`.
std::vector<std::uint8_t> EncodeIndexAndFooter(const std::vector<IndexEntry>& entries, std::uint64_t indexOffset,
                                               std::uint64_t fileId);

// A checkpoint record at `offset` listing `count` entries from `first` (the
// atoms written since the checkpoint at `previous`, 0 for none).
std::vector<std::uint8_t> EncodeCheckpoint(const IndexEntry* first, std::size_t count, std::uint64_t previous,
                                           std::uint64_t offset, std::uint64_t fileId);

// The entry `i` of the encoded entries at `entries`.
inline IndexEntry EntryAt(const std::uint8_t* entries, std::size_t i) {
    const std::uint8_t* p = entries + i * kIndexEntrySize;
    return {GetU64(p), static_cast<std::int64_t>(GetU64(p + 8)), GetU32(p + 16), GetU16(p + 20)};
}

// Checks `count` encoded entries at `p`: record-aligned, in increasing file
// order from `minOffset` on, each leaving room for an atom record before
// `limit`. False with `reason` set otherwise.
bool ValidateIndexEntries(const std::uint8_t* p, std::uint64_t count, std::uint64_t minOffset, std::uint64_t limit,
                          std::string& reason);

// Validates and appends `count` encoded entries at `p` to `out` (unchanged
// on failure).
bool DecodeIndexEntries(const std::uint8_t* p, std::uint64_t count, std::uint64_t minOffset, std::uint64_t limit,
                        std::vector<IndexEntry>& out, std::string& reason);

// The parts of a footer payload.
struct Footer {
    std::uint64_t indexOffset = 0;
    std::uint64_t atoms = 0;
};
bool DecodeFooter(const std::uint8_t* payload, std::uint64_t payloadSize, Footer& out);

// The parts of a checkpoint payload before its entries.
struct CheckpointPrefix {
    std::uint64_t previous = 0;
    std::uint64_t count = 0;
};
bool DecodeCheckpointPrefix(const std::uint8_t* payload, std::uint64_t payloadSize, CheckpointPrefix& out);

}  // namespace KEL::container
