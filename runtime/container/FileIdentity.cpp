#include "container/FileIdentity.h"

#include <map>

#include "container/IndexReader.h"
#include "container/RecordWalker.h"

namespace KEL::container {

FileIdentity IdentifyFile(const ReadableFile& file, std::uint64_t size) {
    FileIdentity id;
    std::array<std::uint8_t, kFirstRecordOffset> start{};
    const std::int64_t got = file.ReadAt(0, start.data(), start.size());
    const std::uint64_t have = got > 0 ? static_cast<std::uint64_t>(got) : 0;
    id.status = DecodeFileHeader(start.data(), have, id.header, id.reason);
    if (id.status == FileHeaderStatus::kValid) {
        std::copy(start.begin() + static_cast<long>(kCheckpointSlotOffsets[0]), start.end(), id.slots.begin());
        return id;
    }
    id.header = {};
    if (id.status == FileHeaderStatus::kUnsupported || size <= kFirstRecordOffset) {
        return id;
    }
    ClosedIndex index;
    std::string reason;
    if (ReadIndex(file, size, 0, index, reason) == IndexStatus::kValid) {
        id.header.fileId = index.fileId;
        id.fromRecords = true;
        return id;
    }
    std::map<std::uint64_t, std::uint64_t> counts;
    WalkVisitor visitor;
    visitor.onRecord = [&](std::uint64_t, const RecordHeader& header, bool) { ++counts[header.fileId]; };
    visitor.onDamage = [](std::uint64_t, std::uint64_t, std::uint64_t) {};
    visitor.onTail = [](std::uint64_t, std::uint64_t) {};
    WalkRecords(file, {kFirstRecordOffset, size, 0, false}, visitor);
    std::uint64_t best = 0;
    for (const auto& [fileId, count] : counts) {
        if (count > best) {
            best = count;
            id.header.fileId = fileId;
        }
    }
    id.fromRecords = id.header.fileId != 0;
    return id;
}

}  // namespace KEL::container
