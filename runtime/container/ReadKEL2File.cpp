#include <KEL/ReadKEL2File.h>

#include <algorithm>
#include <new>
#include <unordered_map>

#include "container/AtomRecord.h"
#include "container/ContainerFormat.h"
#include "container/ContainerIndex.h"
#include "container/ContainerLog.h"
#include "container/MappedFile.h"
#include "container/RecordScanner.h"

namespace KEL {

using namespace container;

namespace {

enum class SlotState : std::uint8_t { kUnchecked, kGood, kBad };

struct Slot {
    std::uint32_t frameNr;
    std::uint64_t offset;
    SlotState state;
};

}  // namespace

struct ReadKEL2File::Impl {
    std::string path;
    ReaderOptions options;
    std::shared_ptr<const MappedFile> file;
    std::uint16_t formatVersion = 0;
    ContainerDamageReport report;
    std::vector<std::uint16_t> streamOrder;
    // Per stream, its atoms sorted by stored frame number (file order among
    // equal numbers, so a lookup finds the first one written).
    std::unordered_map<std::uint16_t, std::vector<Slot>> streams;
    std::uint64_t numAtoms = 0;
    // Atom records lie before this offset (the index, or the end of file).
    std::uint64_t recordsEnd = 0;
    std::string lastError;

    void Reset() {
        file.reset();
        formatVersion = 0;
        report = {};
        streamOrder.clear();
        streams.clear();
        numAtoms = 0;
        recordsEnd = 0;
        lastError.clear();
    }

    KelErrorCode Fail(KelErrorCode code, const std::string& reason) {
        lastError = reason;
        LogContainer(2, "Cannot open container '%s': %s", path.c_str(), reason.c_str());
        file.reset();
        streamOrder.clear();
        streams.clear();
        numAtoms = 0;
        return code;
    }

    void AddAtom(std::uint16_t stream, std::uint32_t frameNr, std::uint64_t offset, SlotState state) {
        auto [it, inserted] = streams.try_emplace(stream);
        if (inserted) {
            streamOrder.push_back(stream);
        }
        it->second.push_back({frameNr, offset, state});
        ++numAtoms;
    }

    void SortStreams() {
        for (auto& [stream, slots] : streams) {
            auto byFrame = [](const Slot& a, const Slot& b) { return a.frameNr < b.frameNr; };
            if (!std::is_sorted(slots.begin(), slots.end(), byFrame)) {
                std::stable_sort(slots.begin(), slots.end(), byFrame);
            }
        }
    }

    KelErrorCode Open();
    void Scan();
    std::shared_ptr<Atom> Load(std::uint16_t stream, Slot& slot);
    std::shared_ptr<Atom> MarkBad(std::uint16_t stream, Slot& slot, const std::string& why);
};

KelErrorCode ReadKEL2File::Impl::Open() {
    KelErrorCode code = KEL_OK;
    std::string reason;
    file = MappedFile::Open(path, code, reason);
    if (!file) {
        return Fail(code, reason);
    }
    const std::uint8_t* data = file->Data();
    const std::uint64_t size = file->Size();
    code = CheckFileHeader(data, size, formatVersion, reason);
    if (code != KEL_OK) {
        return Fail(code, reason);
    }

    std::vector<IndexEntry> entries;
    IndexLocation location;
    const IndexStatus status =
        options.useIndex ? ReadIndex(data, size, entries, location, reason) : IndexStatus::kAbsent;
    if (status == IndexStatus::kValid) {
        report.indexUsed = true;
        recordsEnd = location.indexOffset;
        for (const auto& e : entries) {
            AddAtom(e.streamId, e.frameNr, e.offset, SlotState::kUnchecked);
        }
        report.validRecords = numAtoms;
        SortStreams();
        return KEL_OK;
    }
    if (status == IndexStatus::kDamaged && options.logDamage) {
        LogContainer(3, "Container '%s': index unusable (%s); scanning the records", path.c_str(), reason.c_str());
    }
    // A file whose header is intact opens even when none of its records is:
    // a power loss can leave just that of a recording whose data was never
    // synced, and an empty container is the truthful answer.
    Scan();
    return KEL_OK;
}

void ReadKEL2File::Impl::Scan() {
    report.recovered = true;
    recordsEnd = file->Size();
    const std::uint8_t* data = file->Data();
    ScanVisitor visitor;
    visitor.onRecord = [&](std::uint64_t offset, const RecordHeader& header, bool payloadValid) {
        AtomKey key;
        if (payloadValid && header.kind != RecordKind::kAtom) {
            return;
        }
        if (!payloadValid || !PeekAtomKey(data + offset + kRecordHeaderSize, header.payloadSize, key)) {
            ++report.skippedRecords;
            report.skippedBytes += header.TotalSize();
            return;
        }
        AddAtom(key.streamId, key.frameNr, offset, SlotState::kGood);
        ++report.validRecords;
    };
    visitor.onDamage = [&](std::uint64_t, std::uint64_t length) {
        ++report.skippedRecords;
        report.skippedBytes += length;
    };
    visitor.onTail = [&](std::uint64_t, std::uint64_t length) { report.truncatedTailBytes = length; };
    ScanRecords(data, file->Size(), visitor);
    SortStreams();
    if (options.logDamage) {
        LogContainer(3,
                     "Recovered container '%s' without index: %llu atoms kept, %llu damaged records (%llu bytes) "
                     "skipped, %llu bytes of incomplete tail ignored",
                     path.c_str(), static_cast<unsigned long long>(report.validRecords),
                     static_cast<unsigned long long>(report.skippedRecords),
                     static_cast<unsigned long long>(report.skippedBytes),
                     static_cast<unsigned long long>(report.truncatedTailBytes));
    }
}

std::shared_ptr<Atom> ReadKEL2File::Impl::MarkBad(std::uint16_t stream, Slot& slot, const std::string& why) {
    slot.state = SlotState::kBad;
    ++report.skippedRecords;
    if (report.validRecords > 0) {
        --report.validRecords;
    }
    if (options.logDamage) {
        LogContainer(3, "Container '%s': atom of stream %u frame %u at offset %llu is damaged (%s); skipped",
                     path.c_str(), static_cast<unsigned>(stream), static_cast<unsigned>(slot.frameNr),
                     static_cast<unsigned long long>(slot.offset), why.c_str());
    }
    return nullptr;
}

std::shared_ptr<Atom> ReadKEL2File::Impl::Load(std::uint16_t stream, Slot& slot) {
    if (slot.state == SlotState::kBad) {
        return nullptr;
    }
    const std::uint8_t* data = file->Data();
    RecordHeader header;
    if (slot.offset > recordsEnd || recordsEnd - slot.offset < kRecordHeaderSize ||
        DecodeRecordHeader(data + slot.offset, slot.offset, header) != HeaderStatus::kValid ||
        header.kind != RecordKind::kAtom || header.payloadSize > recordsEnd - slot.offset - kRecordHeaderSize) {
        return MarkBad(stream, slot, "damaged record header");
    }
    const std::uint8_t* payload = data + slot.offset + kRecordHeaderSize;
    if (slot.state == SlotState::kUnchecked && options.verifyChecksums) {
        if (PayloadChecksum(payload, header.payloadSize, slot.offset + kRecordHeaderSize) != header.payloadChecksum) {
            return MarkBad(stream, slot, "checksum mismatch");
        }
        slot.state = SlotState::kGood;
    }
    AtomKey key;
    if (!PeekAtomKey(payload, header.payloadSize, key) || key.streamId != stream || key.frameNr != slot.frameNr) {
        return MarkBad(stream, slot, "record does not match the index");
    }
    std::string reason;
    auto atom = DecodeAtomRecord(file, payload, header.payloadSize, reason);
    if (!atom) {
        return MarkBad(stream, slot, reason);
    }
    return atom;
}

ReadKEL2File::ReadKEL2File(const char* path, ReaderOptions options) : impl_(std::make_unique<Impl>()) {
    impl_->path = path != nullptr ? path : "";
    impl_->options = options;
}

ReadKEL2File::~ReadKEL2File() = default;

KelErrorCode ReadKEL2File::Initialize() {
    impl_->Reset();
    try {
        return impl_->Open();
    } catch (const std::bad_alloc&) {
        return impl_->Fail(KEL_ERR_IO, "out of memory");
    } catch (const std::exception& e) {
        return impl_->Fail(KEL_ERR_IO, e.what());
    }
}

int ReadKEL2File::GetNumStreams() const { return static_cast<int>(impl_->streamOrder.size()); }

std::uint16_t ReadKEL2File::GetStreamId(int index) const {
    if (index < 0 || static_cast<std::size_t>(index) >= impl_->streamOrder.size()) {
        return 0;
    }
    return impl_->streamOrder[static_cast<std::size_t>(index)];
}

std::uint16_t ReadKEL2File::GetFirstStreamId() const { return GetStreamId(0); }

std::uint32_t ReadKEL2File::GetNumFrames(std::uint16_t stream) const {
    const auto it = impl_->streams.find(stream);
    return it == impl_->streams.end() ? 0 : static_cast<std::uint32_t>(it->second.size());
}

std::shared_ptr<Atom> ReadKEL2File::GetFrameAtom(std::uint16_t stream, std::uint32_t frameNr) {
    try {
        const auto it = impl_->streams.find(stream);
        if (it == impl_->streams.end()) {
            return nullptr;
        }
        auto& slots = it->second;
        const auto slot = std::lower_bound(slots.begin(), slots.end(), frameNr,
                                           [](const Slot& s, std::uint32_t nr) { return s.frameNr < nr; });
        if (slot == slots.end() || slot->frameNr != frameNr) {
            return nullptr;
        }
        return impl_->Load(stream, *slot);
    } catch (const std::exception& e) {
        impl_->lastError = e.what();
        return nullptr;
    }
}

std::shared_ptr<Atom> ReadKEL2File::GetFirstFrameAtom(std::uint16_t stream) {
    const auto it = impl_->streams.find(stream);
    if (it == impl_->streams.end() || it->second.empty()) {
        return nullptr;
    }
    return GetFrameAtom(stream, it->second.front().frameNr);
}

const std::string& ReadKEL2File::GetFilePath() const noexcept { return impl_->path; }

std::uint16_t ReadKEL2File::GetFormatVersion() const noexcept { return impl_->formatVersion; }

const ContainerDamageReport& ReadKEL2File::GetDamageReport() const noexcept { return impl_->report; }

std::vector<std::uint32_t> ReadKEL2File::GetFrameNumbers(std::uint16_t stream) const {
    std::vector<std::uint32_t> numbers;
    const auto it = impl_->streams.find(stream);
    if (it != impl_->streams.end()) {
        numbers.reserve(it->second.size());
        for (const auto& slot : it->second) {
            numbers.push_back(slot.frameNr);
        }
    }
    return numbers;
}

std::uint64_t ReadKEL2File::GetNumAtoms() const noexcept { return impl_->numAtoms; }

std::uint64_t ReadKEL2File::GetFileSize() const noexcept { return impl_->file ? impl_->file->Size() : 0; }

const std::string& ReadKEL2File::GetLastError() const noexcept { return impl_->lastError; }

}  // namespace KEL
