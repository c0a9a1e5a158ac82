#include "container/IndexReader.h"

#include <algorithm>
#include <array>

#include "container/BufferPool.h"

namespace KEL::container {

bool ReadWholeRecord(const ReadableFile& file, std::uint64_t offset, std::uint64_t limit, RecordKind kind,
                     std::uint64_t fileId, std::uint64_t maxPayload, WholeRecord& out, std::string& reason) {
    std::array<std::uint8_t, kRecordHeaderSize> bytes{};
    if (offset > limit || limit - offset < kRecordHeaderSize || !file.ReadExactly(offset, bytes.data(), bytes.size())) {
        reason = "record cut short";
        return false;
    }
    RecordHeader& header = out.header;
    if (DecodeRecordHeader(bytes.data(), offset, header) != HeaderStatus::kValid || header.kind != kind ||
        (fileId != 0 && header.fileId != fileId)) {
        reason = "damaged record header";
        return false;
    }
    if (header.payloadSize > limit - offset - kRecordHeaderSize) {
        reason = "record runs past its end";
        return false;
    }
    if (header.payloadSize > maxPayload) {
        reason = "record larger than it can be";
        return false;
    }
    out.memory = BufferPool::Shared()->Get(static_cast<std::size_t>(header.payloadSize));
    out.payload = out.memory.get();
    if (!file.ReadExactly(offset + kRecordHeaderSize, out.memory.get(), static_cast<std::size_t>(header.payloadSize))) {
        reason = "record cut short";
        return false;
    }
    if (PayloadChecksum(out.payload, header.payloadSize, offset + kRecordHeaderSize) != header.payloadChecksum) {
        reason = "checksum mismatch";
        return false;
    }
    return true;
}

IndexStatus ReadIndex(const ReadableFile& file, std::uint64_t size, std::uint64_t fileId, ClosedIndex& out,
                      std::string& reason) {
    out = {};
    if (size < kFirstRecordOffset + kRecordHeaderSize + kIndexCountSize + kFooterRecordSize ||
        size % kRecordAlignment != 0) {
        return IndexStatus::kAbsent;
    }
    const std::uint64_t footerOffset = size - kFooterRecordSize;
    std::array<std::uint8_t, kRecordHeaderSize> bytes{};
    if (!file.ReadExactly(footerOffset, bytes.data(), bytes.size())) {
        return IndexStatus::kAbsent;
    }
    RecordHeader footerHeader;
    const HeaderStatus status = DecodeRecordHeader(bytes.data(), footerOffset, footerHeader);
    // A record ending exactly at EOF that is not a footer (or not this
    // file's) is an ordinary record of an unclosed file.
    if (status == HeaderStatus::kNoMagic || status == HeaderStatus::kMisplaced ||
        (status == HeaderStatus::kValid &&
         (footerHeader.kind != RecordKind::kFooter || (fileId != 0 && footerHeader.fileId != fileId)))) {
        return IndexStatus::kAbsent;
    }
    WholeRecord record;
    Footer footer;
    if (status != HeaderStatus::kValid ||
        !ReadWholeRecord(file, footerOffset, size, RecordKind::kFooter, fileId, kFooterPayloadSize, record, reason) ||
        !DecodeFooter(record.payload, record.header.payloadSize, footer)) {
        reason = "damaged footer";
        return IndexStatus::kDamaged;
    }
    out.footerOffset = footerOffset;
    out.indexOffset = footer.indexOffset;
    if (footer.indexOffset < kFirstRecordOffset || footer.indexOffset % kRecordAlignment != 0 ||
        footer.indexOffset > footerOffset) {
        reason = "footer points outside the file";
        return IndexStatus::kDamaged;
    }
    out.fileId = record.header.fileId;
    // The footer's atom count fixes the index's size: a damaged index
    // header cannot make the reader allocate more than that.
    const std::uint64_t indexBytes = footerOffset - footer.indexOffset;
    if (indexBytes < kRecordHeaderSize + kIndexCountSize ||
        footer.atoms > (indexBytes - kRecordHeaderSize - kIndexCountSize) / kIndexEntrySize ||
        kRecordHeaderSize + kIndexCountSize + footer.atoms * kIndexEntrySize != indexBytes) {
        reason = "index size does not match the footer";
        return IndexStatus::kDamaged;
    }
    if (!ReadWholeRecord(file, footer.indexOffset, footerOffset, RecordKind::kIndex, out.fileId,
                         kIndexCountSize + footer.atoms * kIndexEntrySize, record, reason)) {
        reason = "index: " + reason;
        return IndexStatus::kDamaged;
    }
    const std::uint64_t payloadSize = record.header.payloadSize;
    if (record.header.TotalSize() != footerOffset - footer.indexOffset || payloadSize < kIndexCountSize) {
        reason = "index size does not match the footer";
        return IndexStatus::kDamaged;
    }
    const std::uint64_t count = GetU64(record.payload);
    if (count != footer.atoms || count > (payloadSize - kIndexCountSize) / kIndexEntrySize ||
        kIndexCountSize + count * kIndexEntrySize != payloadSize) {
        reason = "index entry count does not match its size";
        return IndexStatus::kDamaged;
    }
    if (!ValidateIndexEntries(record.payload + kIndexCountSize, count, kFirstRecordOffset, footer.indexOffset,
                              reason)) {
        reason = "index " + reason;
        return IndexStatus::kDamaged;
    }
    out.entries = record.payload + kIndexCountSize;
    out.count = count;
    out.memory = std::move(record.memory);
    return IndexStatus::kValid;
}

namespace {

bool ReadChain(const ReadableFile& file, std::uint64_t size, std::uint64_t fileId, const CheckpointSlot& slot,
               CheckpointChain& out, std::string& reason) {
    std::vector<std::vector<IndexEntry>> segments;
    std::uint64_t offset = slot.checkpointOffset;
    std::uint64_t limit = size;
    std::uint64_t listed = 0;
    WholeRecord record;
    while (offset != 0) {
        // Each checkpoint lies before the one that names it, so the walk
        // back always ends.
        const std::uint64_t unlisted = listed <= slot.atoms ? slot.atoms - listed : 0;
        const std::uint64_t maxPayload =
            kCheckpointPrefixSize + std::min<std::uint64_t>(unlisted, UINT64_MAX / 64) * kIndexEntrySize;
        if (offset >= limit || listed > slot.atoms ||
            !ReadWholeRecord(file, offset, limit, RecordKind::kCheckpoint, fileId, maxPayload, record, reason)) {
            reason = "checkpoint at " + std::to_string(offset) + ": " + reason;
            return false;
        }
        if (segments.empty()) {
            out.lastOffset = offset;
            out.end = offset + record.header.TotalSize();
        }
        CheckpointPrefix prefix;
        segments.emplace_back();
        if (!DecodeCheckpointPrefix(record.payload, record.header.payloadSize, prefix) ||
            !DecodeIndexEntries(record.payload + kCheckpointPrefixSize, prefix.count,
                                prefix.previous == 0 ? kFirstRecordOffset : prefix.previous + kRecordHeaderSize, offset,
                                segments.back(), reason)) {
            reason = "checkpoint at " + std::to_string(offset) + " is malformed";
            return false;
        }
        listed += prefix.count;
        limit = offset;
        offset = prefix.previous;
    }
    if (listed != slot.atoms) {
        reason = "the checkpoints list " + std::to_string(listed) + " atoms, the slot " + std::to_string(slot.atoms);
        return false;
    }
    out.entries.clear();
    out.entries.reserve(listed);
    for (auto it = segments.rbegin(); it != segments.rend(); ++it) {
        out.entries.insert(out.entries.end(), it->begin(), it->end());
    }
    return true;
}

}  // namespace

bool ReadCheckpoints(const ReadableFile& file, std::uint64_t size, std::uint64_t fileId, const std::uint8_t* slots,
                     CheckpointChain& out, std::string& reason) {
    std::array<CheckpointSlot, 2> decoded{};
    std::array<bool, 2> valid{};
    for (std::size_t i = 0; i < 2; ++i) {
        valid[i] = DecodeCheckpointSlot(slots + i * kCheckpointSlotSize, fileId, decoded[i]);
    }
    std::array<std::size_t, 2> order{0, 1};
    if (decoded[1].sequence > decoded[0].sequence) {
        std::swap(order[0], order[1]);
    }
    reason = "no checkpoint";
    for (const std::size_t i : order) {
        if (valid[i] && ReadChain(file, size, fileId, decoded[i], out, reason)) {
            return true;
        }
    }
    out = {};
    return false;
}

}  // namespace KEL::container
