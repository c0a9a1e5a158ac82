#include "container/ContainerIndex.h"

namespace KEL::container {

namespace {

void PutEntry(std::uint8_t* p, const IndexEntry& e) {
    PutU64(p, e.offset);
    PutU64(p + 8, static_cast<std::uint64_t>(e.timeStamp));
    PutU32(p + 16, e.frameNr);
    PutU16(p + 20, e.streamId);
    PutU16(p + 22, 0);
}

}  // namespace

std::vector<std::uint8_t> SealRecord(RecordKind kind, const std::vector<std::uint8_t>& payload, std::uint64_t offset,
                                     std::uint64_t fileId) {
    std::vector<std::uint8_t> out(kRecordHeaderSize + payload.size());
    std::copy(payload.begin(), payload.end(), out.begin() + kRecordHeaderSize);
    RecordHeader header;
    header.kind = kind;
    header.fileId = fileId;
    header.offset = offset;
    header.payloadSize = payload.size();
    header.payloadChecksum =
        PayloadChecksum(out.data() + kRecordHeaderSize, payload.size(), offset + kRecordHeaderSize);
    EncodeRecordHeader(header, out.data());
    return out;
}

std::vector<std::uint8_t> EncodeIndexAndFooter(const std::vector<IndexEntry>& entries, std::uint64_t indexOffset,
                                               std::uint64_t fileId) {
    std::vector<std::uint8_t> payload(kIndexCountSize + kIndexEntrySize * entries.size());
    PutU64(payload.data(), entries.size());
    for (std::size_t i = 0; i < entries.size(); ++i) {
        PutEntry(payload.data() + kIndexCountSize + i * kIndexEntrySize, entries[i]);
    }
    auto out = SealRecord(RecordKind::kIndex, payload, indexOffset, fileId);
    std::vector<std::uint8_t> footer(kFooterPayloadSize);
    PutU64(footer.data(), indexOffset);
    PutU64(footer.data() + 8, entries.size());
    const auto sealed = SealRecord(RecordKind::kFooter, footer, indexOffset + out.size(), fileId);
    out.insert(out.end(), sealed.begin(), sealed.end());
    return out;
}

std::vector<std::uint8_t> EncodeCheckpoint(const IndexEntry* first, std::size_t count, std::uint64_t previous,
                                           std::uint64_t offset, std::uint64_t fileId) {
    std::vector<std::uint8_t> payload(kCheckpointPrefixSize + kIndexEntrySize * count);
    PutU64(payload.data(), previous);
    PutU64(payload.data() + 8, count);
    for (std::size_t i = 0; i < count; ++i) {
        PutEntry(payload.data() + kCheckpointPrefixSize + i * kIndexEntrySize, first[i]);
    }
    return SealRecord(RecordKind::kCheckpoint, payload, offset, fileId);
}

bool ValidateIndexEntries(const std::uint8_t* p, std::uint64_t count, std::uint64_t minOffset, std::uint64_t limit,
                          std::string& reason) {
    for (std::uint64_t i = 0; i < count; ++i, p += kIndexEntrySize) {
        const std::uint64_t offset = GetU64(p);
        if (offset < minOffset || offset % kRecordAlignment != 0 || offset > limit ||
            limit - offset < kRecordHeaderSize + kAtomMetaSize || GetU16(p + 22) != 0) {
            reason = "entry " + std::to_string(i) + " points outside the records";
            return false;
        }
        minOffset = offset + kRecordHeaderSize + kAtomMetaSize;
    }
    return true;
}

bool DecodeIndexEntries(const std::uint8_t* p, std::uint64_t count, std::uint64_t minOffset, std::uint64_t limit,
                        std::vector<IndexEntry>& out, std::string& reason) {
    if (!ValidateIndexEntries(p, count, minOffset, limit, reason)) {
        return false;
    }
    out.reserve(out.size() + count);
    for (std::uint64_t i = 0; i < count; ++i) {
        out.push_back(EntryAt(p, i));
    }
    return true;
}

bool DecodeFooter(const std::uint8_t* payload, std::uint64_t payloadSize, Footer& out) {
    if (payloadSize != kFooterPayloadSize) {
        return false;
    }
    out.indexOffset = GetU64(payload);
    out.atoms = GetU64(payload + 8);
    return true;
}

bool DecodeCheckpointPrefix(const std::uint8_t* payload, std::uint64_t payloadSize, CheckpointPrefix& out) {
    if (payloadSize < kCheckpointPrefixSize) {
        return false;
    }
    out.previous = GetU64(payload);
    out.count = GetU64(payload + 8);
    return out.count <= (payloadSize - kCheckpointPrefixSize) / kIndexEntrySize &&
           kCheckpointPrefixSize + out.count * kIndexEntrySize == payloadSize;
}

}  // namespace KEL::container
