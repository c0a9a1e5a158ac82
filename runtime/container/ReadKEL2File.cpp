#include <KEL/DataLayerRegistry.h>
#include <KEL/DataTypeOpaque.h>
#include <KEL/ReadKEL2File.h>

#include <algorithm>
#include <limits>
#include <new>
#include <optional>
#include <unordered_map>
#include <unordered_set>

#include "container/AtomReadAhead.h"
#include "container/AtomRecord.h"
#include "container/BufferPool.h"
#include "container/ContainerFormat.h"
#include "container/ContainerLog.h"
#include "container/FileIdentity.h"
#include "container/IndexReader.h"
#include "container/ReadableFile.h"
#include "container/ReaderDamageRecord.h"
#include "container/RecordReader.h"
#include "container/RecordWalker.h"

namespace KEL {

using namespace container;

namespace {

enum class RecordState : std::uint8_t { kUnchecked, kGood, kBad };

// The atom records in file order. Those that the index lists stay encoded in
// the memory the index was read into (a large index is neither copied nor
// turned into objects: opening 100,000 atoms touches little more than the
// index's own bytes); those found by a checkpoint or a walk are appended.
class RecordTable {
public:
    void SetListed(std::shared_ptr<std::uint8_t> memory, const std::uint8_t* entries, std::size_t count) {
        listedMemory_ = std::move(memory);
        listed_ = entries;
        listedCount_ = count;
        state_.assign(count, RecordState::kUnchecked);
    }
    void Append(const IndexEntry& e) {
        appended_.push_back(e);
        state_.push_back(RecordState::kUnchecked);
    }
    std::size_t Size() const { return state_.size(); }
    IndexEntry operator[](std::size_t i) const {
        return i < listedCount_ ? EntryAt(listed_, i) : appended_[i - listedCount_];
    }
    RecordState& State(std::size_t i) { return state_[i]; }
    RecordState State(std::size_t i) const { return state_[i]; }
    void Clear() {
        listedMemory_.reset();
        listed_ = nullptr;
        listedCount_ = 0;
        appended_.clear();
        state_.clear();
    }

private:
    std::shared_ptr<std::uint8_t> listedMemory_;
    const std::uint8_t* listed_ = nullptr;
    std::size_t listedCount_ = 0;
    std::vector<IndexEntry> appended_;
    std::vector<RecordState> state_;
};

// How far past the atom just fetched sequential playback asks the kernel to
// read ahead; the advice is renewed each time a quarter of it was consumed.
constexpr std::uint64_t kReadAheadBytes = std::uint64_t{32} << 20;

}  // namespace

struct ReadKEL2File::Impl {
    std::string path;
    ReaderOptions options;
    std::shared_ptr<const ReadableFile> file;
    std::shared_ptr<BufferPool> pool = BufferPool::Shared();
    FileHeader header;
    ContainerDamageReport report;
    bool open = false;
    bool closed = false;
    // Atom records in file order; per stream, indices into them sorted by
    // stored frame number (file order among equal numbers, so a lookup finds
    // the first one written).
    RecordTable records;
    std::vector<std::uint16_t> streamOrder;
    std::unordered_map<std::uint16_t, std::vector<std::uint32_t>> streams;
    // The list of the stream met last (most records follow one of the same
    // stream or cycle through a few).
    std::uint16_t lastStream = 0;
    std::vector<std::uint32_t>* lastList = nullptr;
    // Atom records lie before this offset (the index, or the end of what was
    // walked); Refresh continues walking at `resumeAt`.
    std::uint64_t recordsEnd = 0;
    std::uint64_t resumeAt = 0;
    // Damage that reached the end of the walk. While the writer has not
    // closed the file, Refresh walks it again (a record may yet be completed
    // there), so what it counted is taken back first.
    struct TrailingDamage {
        std::uint64_t records = 0;
        std::uint64_t bytes = 0;
        std::uint64_t foreign = 0;
    } trailing;
    std::uint64_t fileSize = 0;
    std::string lastError;
    std::vector<ReaderDamage> damage;
    std::unordered_set<std::uint64_t> damagedOffsets;

    // Sequential access: the record fetched last, how many fetches in a row
    // went forward, and the end of the range the kernel was last asked to
    // read ahead.
    std::size_t lastFetched = SIZE_MAX;
    int forwardRun = 0;
    std::uint64_t adviseEnd = 0;

    void Reset() {
        // No fetch ahead may read the file while it is closed and reopened.
        readAhead.Cancel();
        file.reset();
        header = {};
        report = {};
        open = closed = false;
        records.Clear();
        streamOrder.clear();
        streams.clear();
        lastList = nullptr;
        recordsEnd = resumeAt = fileSize = 0;
        trailing = {};
        lastError.clear();
        damage.clear();
        damagedOffsets.clear();
        lastFetched = SIZE_MAX;
        forwardRun = 0;
        adviseEnd = 0;
    }

    KelErrorCode Fail(KelErrorCode code, const std::string& reason) {
        // A copy: `reason` may be lastError itself, which Reset clears.
        const std::string why = reason;  // NOLINT(performance-unnecessary-copy-initialization)
        Reset();
        lastError = why;
        LogContainer(2, "Cannot open container '%s': %s", path.c_str(), why.c_str());
        return code;
    }

    // Files the record `index` (already in `records`) under its stream.
    void File(std::uint32_t index, std::uint16_t stream, std::uint32_t frameNr) {
        if (lastList == nullptr || stream != lastStream) {
            auto [it, inserted] = streams.try_emplace(stream);
            if (inserted) {
                streamOrder.push_back(stream);
            }
            lastStream = stream;
            lastList = &it->second;
        }
        auto& list = *lastList;
        if (!list.empty() && records[list.back()].frameNr > frameNr) {
            // Out of order: insert after every record with a lower or equal number.
            const auto at =
                std::upper_bound(list.begin(), list.end(), frameNr,
                                 [this](std::uint32_t nr, std::uint32_t i) { return nr < records[i].frameNr; });
            list.insert(at, index);
        } else {
            list.push_back(index);
        }
    }

    void Append(const IndexEntry& e) {
        records.Append(e);
        File(static_cast<std::uint32_t>(records.Size() - 1), e.streamId, e.frameNr);
        ++report.validRecords;
    }

    // The bytes from the record's start to the next record's (or the end of
    // the records): the record and perhaps a checkpoint after it.
    std::uint64_t SizeHint(std::size_t index) const {
        return (index + 1 < records.Size() ? records[index + 1].offset : recordsEnd) - records[index].offset;
    }

    // Keeps what was lost for GetDamage and, when reporting damage, for
    // TakeReaderDamage.
    void NoteDamage(ReaderDamage lost) {
        if (damage.size() < kMaxReaderDamage && damagedOffsets.insert(lost.offset).second) {
            damage.push_back(lost);
        }
        if (options.logDamage) {
            RecordReaderDamage(std::move(lost));
        }
    }

    // Type names by type GUID, for descriptions.
    std::unordered_map<KelCommon::Guid, std::string> typeNames;

    // The atom that sequential playback of a compressed file will ask for
    // next, read and decoded on a thread of its own. Declared last: it is
    // stopped before the members its fetches use are destroyed.
    AtomReadAhead readAhead{
        [this](const RecordRequest& request) { return FetchAtom(*file, *pool, header.fileId, request); }};

    KelErrorCode Open();
    AtomDescription Describe(std::size_t index);
    const std::string& TypeName(const KelCommon::Guid& type);
    void Walk(std::uint64_t from, std::uint64_t to);
    std::shared_ptr<Atom> Load(std::size_t index);
    std::shared_ptr<Atom> MarkBad(std::size_t index, const std::string& why);
    RecordRequest RequestFor(std::size_t index) const {
        return {records[index].offset, SizeHint(index), recordsEnd,
                options.verifyChecksums && records.State(index) == RecordState::kUnchecked};
    }
    // Notes a fetch of `index` for read-ahead; returns the record that
    // sequential playback will fetch next, or SIZE_MAX when it is not
    // playing sequentially.
    std::size_t ReadAheadAfter(std::size_t index);
    void DecodeAhead(std::size_t next);
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
            recordsEnd = index.indexOffset;
            resumeAt = fileSize;
            records.SetListed(std::move(index.memory), index.entries, index.count);
            for (std::size_t i = 0; i < index.count; ++i) {
                const IndexEntry e = EntryAt(index.entries, i);
                File(static_cast<std::uint32_t>(i), e.streamId, e.frameNr);
            }
            report.validRecords = index.count;
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
        for (const auto& e : chain.entries) {
            Append(e);
        }
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
    report.skippedRecords -= trailing.records;
    report.skippedBytes -= trailing.bytes;
    report.foreignRecords -= trailing.foreign;
    trailing = {};
    WalkVisitor visitor;
    visitor.onRecord = [&](std::uint64_t offset, const RecordHeader& h, bool) {
        if (h.kind == RecordKind::kAtom) {
            Append({offset, h.key.timeStamp, h.key.frameNr, h.key.streamId});
        } else if (h.kind == RecordKind::kFooter && offset + h.TotalSize() == to) {
            closed = true;
        }
    };
    visitor.onDamage = [&](std::uint64_t offset, std::uint64_t length, std::uint64_t foreign) {
        ++report.skippedRecords;
        report.skippedBytes += length;
        report.foreignRecords += foreign;
        if (offset + length == to) {
            trailing = {1, length, foreign};
        }
        NoteDamage({path, offset, length, false, 0, 0,
                    foreign != 0 ? "no intact record (" + std::to_string(foreign) + " of another file)"
                                 : std::string("no intact record")});
    };
    visitor.onTail = [&](std::uint64_t, std::uint64_t length) { report.truncatedTailBytes = length; };
    report.truncatedTailBytes = 0;
    resumeAt = WalkRecords(*file, {from, to, header.fileId, false}, visitor);
    recordsEnd = to;
}

std::shared_ptr<Atom> ReadKEL2File::Impl::MarkBad(std::size_t index, const std::string& why) {
    records.State(index) = RecordState::kBad;
    ++report.skippedRecords;
    if (report.validRecords > 0) {
        --report.validRecords;
    }
    if (options.logDamage) {
        const IndexEntry e = records[index];
        LogContainer(3, "Container '%s': atom of stream %u frame %u at offset %llu is damaged (%s); skipped",
                     path.c_str(), static_cast<unsigned>(e.streamId), static_cast<unsigned>(e.frameNr),
                     static_cast<unsigned long long>(e.offset), why.c_str());
    }
    const IndexEntry e = records[index];
    NoteDamage({path, e.offset, 0, true, e.streamId, e.frameNr, why});
    return nullptr;
}

std::shared_ptr<Atom> ReadKEL2File::Impl::Load(std::size_t index) {
    const RecordState state = records.State(index);
    if (state == RecordState::kBad) {
        return nullptr;
    }
    const IndexEntry record = records[index];
    const RecordRequest request = RequestFor(index);
    const std::size_t next = ReadAheadAfter(index);
    std::optional<FetchedAtom> ahead = readAhead.Take(index, request);
    if (ahead && ahead->record.transient) {
        // A read that failed ahead of time may succeed now.
        ahead.reset();
    }
    DecodeAhead(next);
    const FetchedAtom fetched = ahead ? std::move(*ahead) : FetchAtom(*file, *pool, header.fileId, request);
    const LoadedRecord& loaded = fetched.record;
    if (!loaded.error.empty()) {
        if (loaded.transient) {
            // An I/O error says nothing about the record: it stays unchecked
            // and the next fetch reads it again.
            lastError = loaded.error;
            if (options.logDamage) {
                LogContainer(3, "Container '%s': atom of stream %u frame %u at offset %llu: %s", path.c_str(),
                             static_cast<unsigned>(record.streamId), static_cast<unsigned>(record.frameNr),
                             static_cast<unsigned long long>(record.offset), loaded.error.c_str());
            }
            return nullptr;
        }
        return MarkBad(index, loaded.error);
    }
    const AtomKey& key = loaded.header.key;
    if (key.streamId != record.streamId || key.frameNr != record.frameNr || key.timeStamp != record.timeStamp) {
        return MarkBad(index, "record does not match the index");
    }
    if (loaded.checksumVerified) {
        records.State(index) = RecordState::kGood;
    }
    const std::shared_ptr<Atom>& atom = fetched.atom;
    if (!atom) {
        return MarkBad(index, fetched.reason);
    }
    if (atom->GetStreamId() != key.streamId || atom->GetFrameNr() != key.frameNr ||
        atom->GetTimeStamp() != key.timeStamp) {
        return MarkBad(index, "record header and payload disagree");
    }
    return atom;
}

AtomDescription ReadKEL2File::Impl::Describe(std::size_t index) {
    AtomDescription d;
    const IndexEntry e = records[index];
    d.key = {e.streamId, e.frameNr, e.timeStamp};
    d.offset = e.offset;
    d.storedBytes = SizeHint(index);
    if (records.State(index) == RecordState::kBad) {
        // Found damaged by an earlier read (its payload, perhaps, which is
        // not read here): say why, and list what its descriptors still say.
        d.damaged = true;
        const auto lost = std::find_if(damage.begin(), damage.end(),
                                       [&](const ReaderDamage& r) { return r.atomKnown && r.offset == e.offset; });
        d.reason = lost != damage.end() ? lost->reason : "damaged record";
    }
    RecordLayout layout = ReadAtomRecordLayout(*file, header.fileId, {e.offset, SizeHint(index), recordsEnd, false});
    if (layout.headerValid) {
        d.storedBytes = layout.header.TotalSize();
    }
    const AtomKey& stored = layout.header.key;
    if (layout.error.empty() && layout.headerValid &&
        (stored.streamId != e.streamId || stored.frameNr != e.frameNr || stored.timeStamp != e.timeStamp)) {
        layout.error = "record does not match the index";
    }
    if (!layout.error.empty()) {
        d.damaged = true;
        d.reason = d.reason.empty() ? layout.error : d.reason;
        return d;
    }
    d.layers = std::move(layout.layers);
    for (LayerListing& layer : d.layers) {
        layer.typeName = TypeName(layer.typeGuid);
    }
    return d;
}

const std::string& ReadKEL2File::Impl::TypeName(const KelCommon::Guid& type) {
    auto [it, added] = typeNames.try_emplace(type);
    if (added) {
        // The name the layer read back gives itself.
        const auto layer = DataLayerRegistry::Instance().Create(type);
        it->second = layer ? layer->TypeName() : DataTypeOpaque(type, {}, 0, {}, {}).TypeName();
    }
    return it->second;
}

// Playback fetches atoms in file order (a frame's atoms of every stream, then
// the next frame's), or one stream's atoms, each a fixed number of records
// after the one before: once two fetches in a row went forward, the kernel is
// asked to read the file range of the records that follow, up to a byte
// budget ahead of the one just fetched, so that reading from disk overlaps
// with the use of the current atom. Records of a file without compression
// are read on the caller's thread: measured, a second thread that reads and
// verifies ahead is slower (the caller then finds the bytes out of its cache)
// than reading each record in cache-sized chunks and hashing each chunk at
// once. Decompressing is several times the work of reading, and is done
// ahead (DecodeAhead).
std::size_t ReadKEL2File::Impl::ReadAheadAfter(std::size_t index) {
    const bool forward = lastFetched != SIZE_MAX && index > lastFetched && index - lastFetched <= 16;
    const std::size_t stride = forward ? index - lastFetched : 0;
    forwardRun = forward ? forwardRun + 1 : 0;
    lastFetched = index;
    if (forwardRun < 2) {
        return SIZE_MAX;
    }
    if (options.readAhead) {
        const std::uint64_t from = std::max(records[index].offset + SizeHint(index), adviseEnd);
        const std::uint64_t to = std::min(recordsEnd, records[index].offset + kReadAheadBytes);
        if (to > from + kReadAheadBytes / 4) {
            file->WillNeed(from, to - from);
            adviseEnd = to;
        }
    }
    return index + stride;
}

// While a compressed file is played sequentially, the record that will be
// fetched next is read and decoded on the read-ahead thread, its pieces on
// every core, as the caller uses the current one.
void ReadKEL2File::Impl::DecodeAhead(std::size_t next) {
    if (!options.decodeAhead || header.revision != kLayoutRevisionCoded || next >= records.Size() ||
        records.State(next) == RecordState::kBad) {
        return;
    }
    readAhead.Start(next, RequestFor(next));
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

std::vector<ReaderDamage> ReadKEL2File::GetDamage() const { return impl_->damage; }

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

std::uint64_t ReadKEL2File::GetStoredBytes(std::uint16_t stream) const {
    std::uint64_t bytes = 0;
    if (const auto it = impl_->streams.find(stream); it != impl_->streams.end()) {
        for (const std::uint32_t i : it->second) {
            bytes += impl_->SizeHint(i);
        }
    }
    return bytes;
}

std::uint64_t ReadKEL2File::GetNumAtoms() const noexcept { return impl_->records.Size(); }

std::uint32_t ReadKEL2File::GetNumPlayableFrames() const {
    if (impl_->streamOrder.empty()) {
        return 0;
    }
    std::uint32_t shortest = std::numeric_limits<std::uint32_t>::max();
    for (int i = 0; i < GetNumStreams(); ++i) {
        shortest = std::min(shortest, GetNumFrames(GetStreamId(i)));
    }
    return shortest;
}

std::vector<AtomListing> ReadKEL2File::ListAtoms() const {
    std::vector<AtomListing> atoms;
    atoms.reserve(impl_->records.Size());
    for (std::size_t i = 0; i < impl_->records.Size(); ++i) {
        const IndexEntry e = impl_->records[i];
        atoms.push_back({e.streamId, e.frameNr, e.timeStamp});
    }
    return atoms;
}

std::shared_ptr<Atom> ReadKEL2File::GetAtomAt(std::uint64_t position) {
    if (position >= impl_->records.Size()) {
        return nullptr;
    }
    try {
        return impl_->Load(static_cast<std::size_t>(position));
    } catch (const std::exception& e) {
        impl_->lastError = e.what();
        return nullptr;
    }
}

AtomDescription ReadKEL2File::DescribeAtomAt(std::uint64_t position) {
    if (!impl_->open || position >= impl_->records.Size()) {
        AtomDescription none;
        none.damaged = true;
        none.reason = "no such atom";
        return none;
    }
    try {
        return impl_->Describe(static_cast<std::size_t>(position));
    } catch (const std::exception& e) {
        AtomDescription failed;
        const IndexEntry entry = impl_->records[static_cast<std::size_t>(position)];
        failed.key = {entry.streamId, entry.frameNr, entry.timeStamp};
        failed.offset = entry.offset;
        failed.damaged = true;
        failed.reason = e.what();
        return failed;
    }
}

std::vector<LayerStorage> ReadKEL2File::GetLayerStorage(std::uint64_t position) {
    std::vector<LayerStorage> layers;
    for (const LayerListing& layer : DescribeAtomAt(position).layers) {
        layers.push_back({layer.typeGuid, layer.blobBytes, layer.storedBlobBytes});
    }
    return layers;
}

std::uint64_t ReadKEL2File::GetFileSize() const noexcept { return impl_->fileSize; }

const std::string& ReadKEL2File::GetLastError() const noexcept { return impl_->lastError; }

}  // namespace KEL
