#include "container/ContainerIndex.h"

#include "container/ContainerFormat.h"

namespace KEL::container {

std::vector<std::uint8_t> EncodeIndexAndFooter(const std::vector<IndexEntry>& entries, std::uint64_t indexOffset) {
    const std::uint64_t indexPayload = kIndexCountSize + kIndexEntrySize * entries.size();
    std::vector<std::uint8_t> out(kRecordHeaderSize + indexPayload + kFooterRecordSize, 0);
    std::uint8_t* payload = out.data() + kRecordHeaderSize;
    PutU64(payload, entries.size());
    std::uint8_t* e = payload + kIndexCountSize;
    for (const auto& entry : entries) {
        PutU64(e, entry.offset);
        PutU32(e + 8, entry.frameNr);
        PutU16(e + 12, entry.streamId);
        e += kIndexEntrySize;
    }
    RecordHeader index;
    index.kind = RecordKind::kIndex;
    index.offset = indexOffset;
    index.payloadSize = indexPayload;
    index.payloadChecksum = PayloadChecksum(payload, indexPayload, indexOffset + kRecordHeaderSize);
    EncodeRecordHeader(index, out.data());

    const std::uint64_t footerOffset = indexOffset + kRecordHeaderSize + indexPayload;
    std::uint8_t* footer = out.data() + kRecordHeaderSize + indexPayload;
    PutU64(footer + kRecordHeaderSize, indexOffset);
    PutU64(footer + kRecordHeaderSize + 8, entries.size());
    RecordHeader footerHeader;
    footerHeader.kind = RecordKind::kFooter;
    footerHeader.offset = footerOffset;
    footerHeader.payloadSize = kFooterPayloadSize;
    footerHeader.payloadChecksum =
        PayloadChecksum(footer + kRecordHeaderSize, kFooterPayloadSize, footerOffset + kRecordHeaderSize);
    EncodeRecordHeader(footerHeader, footer);
    return out;
}

IndexStatus ReadIndex(const std::uint8_t* data, std::uint64_t size, std::vector<IndexEntry>& entries,
                      IndexLocation& location, std::string& reason) {
    entries.clear();
    if (size < kFirstRecordOffset + kRecordHeaderSize + kIndexCountSize + kFooterRecordSize ||
        size % kRecordAlignment != 0) {
        return IndexStatus::kAbsent;
    }
    const std::uint64_t footerOffset = size - kFooterRecordSize;
    RecordHeader footer;
    const HeaderStatus footerStatus = DecodeRecordHeader(data + footerOffset, footerOffset, footer);
    if (footerStatus == HeaderStatus::kNoMagic) {
        return IndexStatus::kAbsent;
    }
    if (footerStatus != HeaderStatus::kValid) {
        // A record ending exactly at EOF that is not the footer is an
        // ordinary record of an unclosed file.
        return footerStatus == HeaderStatus::kMisplaced ? IndexStatus::kAbsent : IndexStatus::kDamaged;
    }
    if (footer.kind != RecordKind::kFooter) {
        return IndexStatus::kAbsent;
    }
    location.footerOffset = footerOffset;
    const std::uint8_t* fp = data + footerOffset + kRecordHeaderSize;
    if (footer.payloadSize != kFooterPayloadSize ||
        PayloadChecksum(fp, kFooterPayloadSize, footerOffset + kRecordHeaderSize) != footer.payloadChecksum) {
        reason = "damaged footer";
        return IndexStatus::kDamaged;
    }
    const std::uint64_t indexOffset = GetU64(fp);
    const std::uint64_t numAtoms = GetU64(fp + 8);
    location.indexOffset = indexOffset;
    if (indexOffset < kFirstRecordOffset || indexOffset % kRecordAlignment != 0 ||
        indexOffset > footerOffset - kRecordHeaderSize - kIndexCountSize) {
        reason = "footer points outside the file";
        return IndexStatus::kDamaged;
    }
    RecordHeader index;
    if (DecodeRecordHeader(data + indexOffset, indexOffset, index) != HeaderStatus::kValid ||
        index.kind != RecordKind::kIndex) {
        reason = "damaged index header";
        return IndexStatus::kDamaged;
    }
    if (index.payloadSize != footerOffset - indexOffset - kRecordHeaderSize) {
        reason = "index size does not match the footer";
        return IndexStatus::kDamaged;
    }
    const std::uint8_t* ip = data + indexOffset + kRecordHeaderSize;
    if (PayloadChecksum(ip, index.payloadSize, indexOffset + kRecordHeaderSize) != index.payloadChecksum) {
        reason = "index checksum mismatch";
        return IndexStatus::kDamaged;
    }
    const std::uint64_t count = GetU64(ip);
    if (count != numAtoms || count > (index.payloadSize - kIndexCountSize) / kIndexEntrySize ||
        kIndexCountSize + count * kIndexEntrySize != index.payloadSize) {
        reason = "index entry count does not match its size";
        return IndexStatus::kDamaged;
    }
    entries.reserve(count);
    std::uint64_t minOffset = kFirstRecordOffset;
    const std::uint8_t* e = ip + kIndexCountSize;
    for (std::uint64_t i = 0; i < count; ++i, e += kIndexEntrySize) {
        IndexEntry entry;
        entry.offset = GetU64(e);
        entry.frameNr = GetU32(e + 8);
        entry.streamId = GetU16(e + 12);
        if (entry.offset < minOffset || entry.offset % kRecordAlignment != 0 || entry.offset > indexOffset ||
            indexOffset - entry.offset < kRecordHeaderSize + kAtomMetaSize || GetU16(e + 14) != 0) {
            entries.clear();
            reason = "index entry " + std::to_string(i) + " points outside the records";
            return IndexStatus::kDamaged;
        }
        minOffset = entry.offset + kRecordHeaderSize + kAtomMetaSize;
        entries.push_back(entry);
    }
    return IndexStatus::kValid;
}

}  // namespace KEL::container
