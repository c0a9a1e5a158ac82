#include <KEL/ReadKEL2File.h>

#include <algorithm>
#include <new>
#include <unordered_map>

#include "container/AtomRecord.h"
#include "container/BufferPool.h"
#include "container/ContainerFormat.h"
#include "container/ContainerLog.h"
#include "container/FileIdentity.h"
#include "container/IndexReader.h"
#include "container/ReadableFile.h"
#include "container/RecordLoader.h"
#include "container/RecordWalker.h"

namespace KEL {

using namespace container;

namespace {

enum class RecordState : std::uint8_t { kUnchecked, kGood, kBad };

// One atom record as listed by the index, a checkpoint or a walk.
struct Record {
    std::uint64_t offset = 0;
    // Bytes from `offset` that hold the record: exact when walked, the
    // distance to the next listed record when listed by an index.
    std::uint64_t size = 0;
    std::int64_t timeStamp = 0;
    std::uint32_t frameNr = 0;
    std::uint16_t streamId = 0;
    RecordState state = RecordState::kUnchecked;
};

// Read-ahead keeps this many bytes of records in flight at most, and looks
// this far ahead in file order for records of the streams being played.
constexpr std::uint64_t kReadAheadBytes = std::uint64_t{32} << 20;
constexpr std::size_t kReadAheadRecords = 64;
// A stream counts as being played while one of its atoms was fetched within
// this many fetches.
constexpr std::uint64_t kActiveStreamWindow = 64;

}  // namespace

struct ReadKEL2File::Impl {
    std::string path;
    ReaderOptions options;
    std::shared_ptr<const ReadableFile> file;
    std::shared_ptr<BufferPool> pool = BufferPool::Shared();
    std::unique_ptr<ReadAhead> readAhead;
    FileHeader header;
    ContainerDamageReport report;
    bool open = false;
    bool closed = false;
    // Atom records in file order; per stream, indices into them sorted by
    // stored frame number (file order among equal numbers, so a lookup finds
    // the first one written).
    std::vector<Record> records;
    std::vector<std::uint16_t> streamOrder;
    std::unordered_map<std::uint16_t, std::vector<std::uint32_t>> streams;
    // Atom records lie before this offset (the index, or the end of what was
    // walked); Refresh continues walking at `resumeAt`.
    std::uint64_t recordsEnd = 0;
    std::uint64_t resumeAt = 0;
    std::uint64_t fileSize = 0;
    std::string lastError;

    // Sequential access: the record fetched last, how many fetches in a row
    // went forward, the next record to consider for read-ahead, and when
    // each stream was last fetched.
    std::size_t lastFetched = SIZE_MAX;
    int forwardRun = 0;
    std::size_t nextAhead = 0;
    std::uint64_t fetches = 0;
    std::unordered_map<std::uint16_t, std::uint64_t> lastFetchOfStream;

    void Reset() {
        readAhead.reset();
        file.reset();
        header = {};
        report = {};
        open = closed = false;
        records.clear();
        streamOrder.clear();
        streams.clear();
        recordsEnd = resumeAt = fileSize = 0;
        lastError.clear();
        lastFetched = SIZE_MAX;
        forwardRun = 0;
        nextAhead = 0;
        fetches = 0;
        lastFetchOfStream.clear();
    }

    KelErrorCode Fail(KelErrorCode code, const std::string& reason) {
        const std::string why = reason;
        Reset();
        lastError = why;
        LogContainer(2, "Cannot open container '%s': %s", path.c_str(), why.c_str());
        return code;
    }

    void Add(const IndexEntry& e, std::uint64_t size, RecordState state) {
        auto [it, inserted] = streams.try_emplace(e.streamId);
        if (inserted) {
            streamOrder.push_back(e.streamId);
        }
        auto& list = it->second;
        const auto index = static_cast<std::uint32_t>(records.size());
        records.push_back({e.offset, size, e.timeStamp, e.frameNr, e.streamId, state});
        if (!list.empty() && records[list.back()].frameNr > e.frameNr) {
            // Out of order: insert after every record with a lower or equal number.
            const auto at =
                std::upper_bound(list.begin(), list.end(), e.frameNr,
                                 [this](std::uint32_t nr, std::uint32_t i) { return nr < records[i].frameNr; });
            list.insert(at, index);
        } else {
            list.push_back(index);
        }
    }

    // Adds listed entries; each record's size is bounded by the next one's
    // start (the last one's by `end`).
    void AddListed(const std::vector<IndexEntry>& entries, std::uint64_t end) {
        records.reserve(records.size() + entries.size());
        for (std::size_t i = 0; i < entries.size(); ++i) {
            const std::uint64_t next = i + 1 < entries.size() ? entries[i + 1].offset : end;
            Add(entries[i], next - entries[i].offset, RecordState::kUnchecked);
        }
        report.validRecords += entries.size();
    }

    KelErrorCode Open();
    void Walk(std::uint64_t from, std::uint64_t to);
    std::shared_ptr<Atom> Load(std::size_t index);
    std::shared_ptr<Atom> MarkBad(Record& record, const std::string& why);
    void ReadAheadAfter(std::size_t index);
};

KelErrorCode ReadKEL2File::Impl::Open() {
    KelErrorCode code = KEL_OK;
    std::string reason;
    file = ReadableFile::Open(path, code, reason);
    if (!file) {
        return Fail(code, reason);
    }
    fileSize = file->CurrentSize();
    const FileIdentity identity = IdentifyFile(*file, fileSize);
    switch (identity.status) {
        case FileHeaderStatus::kValid:
            break;
        case FileHeaderStatus::kUnsupported:
            return Fail(KEL_ERR_UNSUPPORTED_VERSION, identity.reason);
        case FileHeaderStatus::kNoMagic:
        case FileHeaderStatus::kDamaged:
            if (!identity.Known()) {
                return Fail(identity.status == FileHeaderStatus::kNoMagic ? KEL_ERR_NOT_A_CONTAINER : KEL_ERR_CORRUPT,
                            identity.reason);
            }
            report.headerDamaged = true;
            if (options.logDamage) {
                LogContainer(3, "Container '%s': %s; the records name their file, reading on", path.c_str(),
                             identity.reason.c_str());
            }
            break;
    }
    header = identity.header;
    open = true;

    if (options.useIndex) {
        ClosedIndex index;
        const IndexStatus status = ReadIndex(*file, fileSize, header.fileId, index, reason);
        if (status == IndexStatus::kValid) {
            report.indexUsed = true;
            closed = true;
            recordsEnd = resumeAt = index.indexOffset;
            AddListed(index.entries, index.indexOffset);
            resumeAt = fileSize;
            return KEL_OK;
        }
        if (status == IndexStatus::kDamaged && options.logDamage) {
            LogContainer(3, "Container '%s': index unusable (%s); walking the records", path.c_str(), reason.c_str());
        }
    }
    report.recovered = true;
    std::uint64_t walkFrom = kFirstRecordOffset;
    CheckpointChain chain;
    if (options.useIndex && !report.headerDamaged &&
        ReadCheckpoints(*file, fileSize, header.fileId, identity.slots.data(), chain, reason)) {
        report.checkpointUsed = true;
        AddListed(chain.entries, chain.lastOffset);
        walkFrom = chain.end;
    }
    Walk(walkFrom, fileSize);
    if (options.logDamage) {
        LogContainer(3,
                     "Recovered container '%s' without index: %llu atoms kept, %llu damaged records (%llu bytes) "
                     "skipped, %llu bytes of incomplete tail ignored",
                     path.c_str(), static_cast<unsigned long long>(report.validRecords),
                     static_cast<unsigned long long>(report.skippedRecords),
                     static_cast<unsigned long long>(report.skippedBytes),
                     static_cast<unsigned long long>(report.truncatedTailBytes));
    }
    return KEL_OK;
}

void ReadKEL2File::Impl::Walk(std::uint64_t from, std::uint64_t to) {
    WalkVisitor visitor;
    visitor.onRecord = [&](std::uint64_t offset, const RecordHeader& h, bool) {
        if (h.kind == RecordKind::kAtom) {
            Add({offset, h.key.timeStamp, h.key.frameNr, h.key.streamId}, h.TotalSize(), RecordState::kUnchecked);
            ++report.validRecords;
        } else if (h.kind == RecordKind::kFooter && offset + h.TotalSize() == to) {
            closed = true;
        }
    };
    visitor.onDamage = [&](std::uint64_t, std::uint64_t length, std::uint64_t foreign) {
        ++report.skippedRecords;
        report.skippedBytes += length;
        report.foreignRecords += foreign;
    };
    visitor.onTail = [&](std::uint64_t, std::uint64_t length) { report.truncatedTailBytes = length; };
    report.truncatedTailBytes = 0;
    resumeAt = WalkRecords(*file, {from, to, header.fileId, false}, visitor);
    recordsEnd = to;
}

std::shared_ptr<Atom> ReadKEL2File::Impl::MarkBad(Record& record, const std::string& why) {
    record.state = RecordState::kBad;
    ++report.skippedRecords;
    if (report.validRecords > 0) {
        --report.validRecords;
    }
    if (options.logDamage) {
        LogContainer(3, "Container '%s': atom of stream %u frame %u at offset %llu is damaged (%s); skipped",
                     path.c_str(), static_cast<unsigned>(record.streamId), static_cast<unsigned>(record.frameNr),
                     static_cast<unsigned long long>(record.offset), why.c_str());
    }
    return nullptr;
}

std::shared_ptr<Atom> ReadKEL2File::Impl::Load(std::size_t index) {
    Record& record = records[index];
    if (record.state == RecordState::kBad) {
        return nullptr;
    }
    std::unique_ptr<LoadedRecord> loaded = readAhead ? readAhead->Take(record.offset) : nullptr;
    if (!loaded) {
        loaded = std::make_unique<LoadedRecord>(
            ReadAtomRecord(*file, *pool, header.fileId,
                           {record.offset, record.size, recordsEnd,
                            options.verifyChecksums && record.state == RecordState::kUnchecked}));
    }
    ReadAheadAfter(index);
    if (!loaded->error.empty()) {
        return MarkBad(record, loaded->error);
    }
    const AtomKey& key = loaded->header.key;
    if (key.streamId != record.streamId || key.frameNr != record.frameNr || key.timeStamp != record.timeStamp) {
        return MarkBad(record, "record does not match the index");
    }
    if (loaded->checksumVerified) {
        record.state = RecordState::kGood;
    }
    std::string reason;
    auto atom = DecodeAtomRecord(loaded->memory, loaded->payload, loaded->header.payloadSize, reason);
    if (!atom) {
        return MarkBad(record, reason);
    }
    if (atom->GetStreamId() != key.streamId || atom->GetFrameNr() != key.frameNr ||
        atom->GetTimeStamp() != key.timeStamp) {
        return MarkBad(record, "record header and payload disagree");
    }
    return atom;
}

// Playback fetches atoms in file order (a frame's atoms of every stream, then
// the next frame's): once two fetches in a row went forward, the records of
// the streams being played that follow are scheduled for reading ahead, up to
// a byte budget. Any other pattern (random access) reads only what is asked.
void ReadKEL2File::Impl::ReadAheadAfter(std::size_t index) {
    if (!options.readAhead) {
        return;
    }
    ++fetches;
    lastFetchOfStream[records[index].streamId] = fetches;
    const bool forward = lastFetched != SIZE_MAX && index > lastFetched && index - lastFetched <= 16;
    forwardRun = forward ? forwardRun + 1 : 0;
    lastFetched = index;
    if (forwardRun < 2) {
        nextAhead = 0;
        if (readAhead) {
            readAhead->DiscardBefore(UINT64_MAX);
        }
        return;
    }
    if (!readAhead) {
        readAhead = std::make_unique<ReadAhead>(file, pool, header.fileId);
    }
    readAhead->DiscardBefore(records[index].offset);
    std::size_t next = std::max(nextAhead, index + 1);
    const std::size_t stop = std::min(records.size(), index + 1 + kReadAheadRecords);
    for (; next < stop && readAhead->PendingBytes() < kReadAheadBytes; ++next) {
        const Record& r = records[next];
        const auto last = lastFetchOfStream.find(r.streamId);
        if (r.state == RecordState::kBad || last == lastFetchOfStream.end() ||
            fetches - last->second > kActiveStreamWindow) {
            continue;
        }
        readAhead->Schedule(
            {r.offset, r.size, recordsEnd, options.verifyChecksums && r.state == RecordState::kUnchecked}, r.size);
    }
    nextAhead = next;
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

KelErrorCode ReadKEL2File::Refresh() {
    if (!impl_->open) {
        return KEL_ERR_NOT_OPEN;
    }
    try {
        const std::uint64_t size = impl_->file->CurrentSize();
        if (size > impl_->resumeAt && !impl_->closed) {
            impl_->fileSize = size;
            impl_->Walk(impl_->resumeAt, size);
        }
        return KEL_OK;
    } catch (const std::exception& e) {
        impl_->lastError = e.what();
        return KEL_ERR_IO;
    }
}

bool ReadKEL2File::IsClosed() const noexcept { return impl_->closed; }

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
        const auto& list = it->second;
        const auto& records = impl_->records;
        const auto found = std::lower_bound(list.begin(), list.end(), frameNr,
                                            [&](std::uint32_t i, std::uint32_t nr) { return records[i].frameNr < nr; });
        if (found == list.end() || records[*found].frameNr != frameNr) {
            return nullptr;
        }
        return impl_->Load(*found);
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
    return GetFrameAtom(stream, impl_->records[it->second.front()].frameNr);
}

const std::string& ReadKEL2File::GetFilePath() const noexcept { return impl_->path; }

std::uint16_t ReadKEL2File::GetFormatVersion() const noexcept { return impl_->open ? kFormatVersion : 0; }

std::uint64_t ReadKEL2File::GetFileId() const noexcept { return impl_->header.fileId; }

std::int64_t ReadKEL2File::GetCreationTime() const noexcept { return impl_->header.createdUs; }

const ContainerDamageReport& ReadKEL2File::GetDamageReport() const noexcept { return impl_->report; }

std::vector<std::uint32_t> ReadKEL2File::GetFrameNumbers(std::uint16_t stream) const {
    std::vector<std::uint32_t> numbers;
    if (const auto it = impl_->streams.find(stream); it != impl_->streams.end()) {
        numbers.reserve(it->second.size());
        for (const std::uint32_t i : it->second) {
            numbers.push_back(impl_->records[i].frameNr);
        }
    }
    return numbers;
}

std::vector<std::int64_t> ReadKEL2File::GetTimeStamps(std::uint16_t stream) const {
    std::vector<std::int64_t> stamps;
    if (const auto it = impl_->streams.find(stream); it != impl_->streams.end()) {
        stamps.reserve(it->second.size());
        for (const std::uint32_t i : it->second) {
            stamps.push_back(impl_->records[i].timeStamp);
        }
    }
    return stamps;
}

std::uint64_t ReadKEL2File::GetNumAtoms() const noexcept { return impl_->records.size(); }

std::uint64_t ReadKEL2File::GetFileSize() const noexcept { return impl_->fileSize; }

const std::string& ReadKEL2File::GetLastError() const noexcept { return impl_->lastError; }

}  // namespace KEL
