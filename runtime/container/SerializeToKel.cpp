#include <KEL/SerializeToKel.h>
#include <fcntl.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <new>
#include <random>
#include <set>
#include <system_error>
#include <utility>

#include "container/AtomRecord.h"
#include "container/ContainerFormat.h"
#include "container/ContainerIndex.h"
#include "container/ContainerLog.h"
#include "container/FileIo.h"
#include "container/GatherWrite.h"
#include "container/XmlCompanion.h"

namespace KEL {

using namespace container;

namespace {

constexpr std::string_view kXmlSuffix = "+xml";

KelErrorCode CodeForWriteErrno(int err) {
    switch (err) {
        case ENOSPC:
        case EDQUOT:
            return KEL_ERR_DISK_FULL;
        case EFBIG:
            return KEL_ERR_FILE_TOO_LARGE;
        default:
            return KEL_ERR_IO;
    }
}

KelErrorCode CodeForOpenErrno(int err) {
    switch (err) {
        case EEXIST:
            return KEL_ERR_ALREADY_EXISTS;
        case ENOENT:
        case ENOTDIR:
            return KEL_ERR_NOT_FOUND;
        case EACCES:
        case EPERM:
        case EROFS:
            return KEL_ERR_ACCESS_DENIED;
        default:
            return CodeForWriteErrno(err);
    }
}

std::string ErrnoText(int err) { return std::generic_category().message(err); }

// The process-wide record behind TakeSerializerFailures.
class FailureRecord {
public:
    static FailureRecord& Instance() {
        static FailureRecord record;
        return record;
    }
    void Add(const std::string& path, KelErrorCode code, const std::string& reason) {
        std::lock_guard lock(mutex_);
        for (auto& f : failures_) {
            if (f.path == path) {
                ++f.count;
                return;
            }
        }
        failures_.push_back({path, code, reason, 1});
    }
    std::vector<SerializerFailure> Take() {
        std::lock_guard lock(mutex_);
        return std::exchange(failures_, {});
    }

private:
    std::mutex mutex_;
    std::vector<SerializerFailure> failures_;
};

// The process's serializer settings, read from the environment on first
// use.
class Settings {
public:
    static Settings& Instance() {
        static Settings settings;
        return settings;
    }
    SerializerSettings Get() {
        const std::lock_guard lock(mutex_);
        return current_;
    }
    void Set(const SerializerSettings& settings) {
        const std::lock_guard lock(mutex_);
        current_ = settings;
    }

private:
    Settings() {
        if (const char* text = std::getenv("KEL_COMPRESSION"); text != nullptr && *text != '\0') {
            std::string error;
            if (!ParseCompression(text, current_.compression, error)) {
                LogContainer(2, "KEL_COMPRESSION ignored: %s", error.c_str());
            }
        }
        if (const char* text = std::getenv("KEL_COMPRESSION_THREADS"); text != nullptr && *text != '\0') {
            char* end = nullptr;
            const unsigned long threads = std::strtoul(text, &end, 10);
            if (end == text || *end != '\0' || threads > 1024) {
                LogContainer(2, "KEL_COMPRESSION_THREADS ignored: '%s' is not a number of threads (0 to 1024)", text);
            } else {
                current_.compressionThreads = static_cast<unsigned>(threads);
            }
        }
    }

    std::mutex mutex_;
    SerializerSettings current_;
};

// What failed, for logging each kind of failure once.
enum class Step { kOpen, kWrite, kSync, kRefused, kIndex, kClose, kCompanion, kAtom, kCheckpoint };

// A checkpoint of the index is written after this many atoms or bytes of
// records since the last one, whichever comes first.
constexpr std::uint64_t kCheckpointAtoms = 1024;
constexpr std::uint64_t kCheckpointBytes = std::uint64_t{256} << 20;

std::uint64_t NewFileId() {
    std::random_device device;
    std::uint64_t id = 0;
    while (id == 0) {
        id = (static_cast<std::uint64_t>(device()) << 32) ^ device();
    }
    return id;
}

}  // namespace

// The file grows by whole records: `end` is the end of the last record that
// was written completely, and a failed write is cut back to it, so the file
// on disk is always a valid container prefix that a reader can scan.
struct SerializeToKel::Impl {
    std::shared_ptr<FileIo> io;
    KelCommon::String filePath;
    bool writeXml = false;
    bool syncEachAtom = false;
    CompressionSetting compression;
    int fd = -1;
    KelErrorCode openResult = KEL_OK;
    bool closed = false;
    // A sync failed: the kernel may have dropped unsynced pages, so nothing
    // written since the last good sync can be promised durable any more.
    bool syncFailed = false;
    // A failed write could not be cut back: bytes past `end` are junk that
    // Close cuts off once the file is complete.
    bool junkPastEnd = false;
    std::uint64_t end = 0;
    FileHeader header;
    std::vector<IndexEntry> index;
    // The newest checkpoint, the first index entry it does not list, the
    // record bytes written since, and how many checkpoints there are.
    std::uint64_t lastCheckpoint = 0;
    std::size_t uncheckpointed = 0;
    std::uint64_t bytesSinceCheckpoint = 0;
    std::uint64_t checkpoints = 0;
    XmlCompanion companion;
    std::uint64_t numAtoms = 0;
    std::string lastError;
    std::set<std::pair<Step, KelErrorCode>> logged;

    KelErrorCode Failed(Step step, KelErrorCode code, const std::string& what) {
        lastError = what;
        FailureRecord::Instance().Add(filePath.str(), code, what);
        if (logged.emplace(step, code).second) {
            LogContainer(2, "Container '%s': %s", filePath.c_str(), what.c_str());
        }
        return code;
    }

    void Open(bool overwrite, KELFormatVersion version);
    KelErrorCode CreateInPlace(bool overwrite);
    KelErrorCode PutInPlace(const std::string& temp, bool overwrite);
    KelErrorCode WriteAt(std::vector<iovec>& iov, std::uint64_t size, const char* what);
    KelErrorCode Sync(const char* what);
    KelErrorCode Serialize(const Atom& atom);
    void CutBack(std::uint64_t offset);
    void WriteCheckpoint();
    KelErrorCode Close();
};

void SerializeToKel::Impl::Open(bool overwrite, KELFormatVersion version) {
    if (version != CURRENT_VERSION) {
        openResult = Failed(Step::kOpen, KEL_ERR_UNSUPPORTED_VERSION,
                            "cannot write format version " + std::to_string(static_cast<unsigned>(version)));
        return;
    }
    const std::filesystem::path path(filePath.str());
    if (path.empty() || !path.has_filename()) {
        openResult = Failed(Step::kOpen, KEL_ERR_INVALID, "not a file path");
        return;
    }
    if (path.has_parent_path()) {
        std::error_code ec;
        std::filesystem::create_directories(path.parent_path(), ec);
        if (ec) {
            openResult = Failed(Step::kOpen, CodeForOpenErrno(ec.value()),
                                "cannot create directory '" + path.parent_path().string() + "': " + ec.message());
            return;
        }
    }
    const std::string xmlPath = filePath.str() + ".xml";
    if (!overwrite) {
        std::error_code ec;
        for (const auto& existing : {filePath.str(), xmlPath}) {
            if (std::filesystem::symlink_status(existing, ec).type() != std::filesystem::file_type::not_found) {
                openResult = Failed(Step::kOpen, KEL_ERR_ALREADY_EXISTS,
                                    "'" + existing + "' exists and overwrite is off; nothing was changed");
                return;
            }
        }
    }
    openResult = CreateInPlace(overwrite);
}

// Writes the file header to a temporary file, syncs it and renames it into
// place, then syncs the directory: from then on the path durably names a
// valid (empty) container. Replacing this way also leaves a reader of the
// old file its own, unchanged file.
KelErrorCode SerializeToKel::Impl::CreateInPlace(bool overwrite) {
    const std::string temp = TemporaryNameFor(filePath.str());
    fd = io->Open(temp, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd < 0) {
        const int err = -fd;
        fd = -1;
        return Failed(Step::kOpen, CodeForOpenErrno(err), "cannot create: " + ErrnoText(err));
    }
    KelErrorCode code = KEL_OK;
    try {
        code = PutInPlace(temp, overwrite);
    } catch (...) {
        code = KEL_ERR_IO;
        Failed(Step::kOpen, code, "out of memory while creating the file");
    }
    if (code != KEL_OK) {
        io->Close(fd);
        fd = -1;
        io->Unlink(temp);
        // When the rename had happened the file exists but is refused like
        // any other failed open; it holds no atom.
    }
    return code;
}

KelErrorCode SerializeToKel::Impl::PutInPlace(const std::string& temp, bool overwrite) {
    header.fileId = NewFileId();
    header.revision = compression.Enabled() ? kLayoutRevisionCoded : kLayoutRevision;
    header.createdUs =
        std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::system_clock::now().time_since_epoch())
            .count();
    // The header and two empty checkpoint slots.
    std::array<std::uint8_t, kFirstRecordOffset> start{};
    const auto encoded = EncodeFileHeader(header);
    std::memcpy(start.data(), encoded.data(), encoded.size());
    std::vector<iovec> iov{{start.data(), start.size()}};
    KelErrorCode code = WriteAt(iov, start.size(), "the file header");
    if (code == KEL_OK) {
        code = Sync("the new file");
    }
    if (code == KEL_OK && overwrite) {
        // An old companion would describe a file that no longer exists.
        if (const int rc = io->Unlink(filePath.str() + ".xml"); rc != 0 && rc != -ENOENT) {
            code = Failed(Step::kOpen, CodeForOpenErrno(-rc), "cannot remove the old XML companion: " + ErrnoText(-rc));
        }
    }
    if (code == KEL_OK) {
        if (const int rc = io->Rename(temp, filePath.str(), overwrite); rc != 0) {
            code = Failed(Step::kOpen, CodeForOpenErrno(-rc),
                          rc == -EEXIST ? std::string("file exists and overwrite is off")
                                        : "cannot move the new file into place: " + ErrnoText(-rc));
        }
    }
    if (code == KEL_OK) {
        if (const int rc = io->SyncDirectory(DirectoryOf(filePath.str())); rc != 0) {
            code = Failed(Step::kSync, CodeForWriteErrno(-rc), "cannot sync the directory: " + ErrnoText(-rc));
        }
    }
    return code;
}

KelErrorCode SerializeToKel::Impl::WriteAt(std::vector<iovec>& iov, std::uint64_t size, const char* what) {
    std::uint64_t written = 0;
    int err = 0;
    try {
        err = GatherWrite(*io, fd, end, iov, written);
    } catch (...) {
        // Whatever reached the file is not acknowledged: cut it off.
        if (io->FTruncate(fd, end) != 0) {
            junkPastEnd = true;
        }
        throw;
    }
    if (err != 0) {
        // Cut the partial record off; if even that fails a reader still
        // stops at the last complete record, and Close cuts it once more.
        if (written != 0 && io->FTruncate(fd, end) != 0) {
            junkPastEnd = true;
        }
        return Failed(Step::kWrite, CodeForWriteErrno(err),
                      std::string("cannot write ") + what + ": " + ErrnoText(err));
    }
    end += size;
    return KEL_OK;
}

KelErrorCode SerializeToKel::Impl::Sync(const char* what) {
    if (const int rc = io->FDataSync(fd); rc != 0) {
        syncFailed = true;
        return Failed(Step::kSync, CodeForWriteErrno(-rc),
                      std::string("cannot sync ") + what + ": " + ErrnoText(-rc) +
                          "; no further atoms are accepted and the file is left without its index");
    }
    return KEL_OK;
}

KelErrorCode SerializeToKel::Impl::Serialize(const Atom& atom) {
    if (syncFailed) {
        return Failed(Step::kRefused, KEL_ERR_IO, "refusing the atom: an earlier sync failed");
    }
    EncodedAtomRecord record;
    std::string error;
    if (const KelErrorCode code = EncodeAtomRecord(atom, end, header.fileId, compression, record, error);
        code != KEL_OK) {
        return Failed(Step::kAtom, code,
                      "cannot store atom of stream " + std::to_string(record.key.streamId) + ": " + error);
    }
    // Whatever the bookkeeping needs is allocated before the record is
    // written: a record in the file is one that was acknowledged.
    index.reserve(index.size() + 1);
    const std::uint64_t offset = end;
    if (const KelErrorCode code = WriteAt(record.iov, record.totalSize, "an atom record"); code != KEL_OK) {
        return code;
    }
    try {
        if (syncEachAtom) {
            if (const KelErrorCode code = Sync("an atom record"); code != KEL_OK) {
                CutBack(offset);
                return code;
            }
        }
        if (writeXml) {
            companion.AddAtom(record.key, record.layers);
        }
    } catch (...) {
        // Reported as not written (out of memory), so a reader must not
        // find it either, nor a retry of the same atom hide behind it.
        CutBack(offset);
        throw;
    }
    index.push_back({offset, record.key.timeStamp, record.key.frameNr, record.key.streamId});
    ++numAtoms;
    bytesSinceCheckpoint += record.totalSize;
    if (index.size() - uncheckpointed >= kCheckpointAtoms || bytesSinceCheckpoint >= kCheckpointBytes) {
        try {
            WriteCheckpoint();
        } catch (const std::exception& e) {
            // The atom is stored and listed; only the checkpoint is missing.
            Failed(Step::kCheckpoint, KEL_ERR_IO, std::string("cannot write a checkpoint: ") + e.what());
        }
    }
    return KEL_OK;
}

// Takes back the record written last, at `offset`, which is reported as not
// written. Should the cut fail, Close cuts the file once more after its index.
void SerializeToKel::Impl::CutBack(std::uint64_t offset) {
    if (io->FTruncate(fd, offset) == 0) {
        end = offset;
    } else {
        end = offset;
        junkPastEnd = true;
    }
}

// Appends a checkpoint listing the atoms written since the previous one and
// points the older of the two slots at it, so that a file whose writer dies
// is listed from there instead of from its first record. The atom that
// triggered it is written and acknowledged whatever happens here: a failure
// is logged, and the next attempt comes after the next interval.
void SerializeToKel::Impl::WriteCheckpoint() {
    const std::uint64_t offset = end;
    auto record = EncodeCheckpoint(index.data() + uncheckpointed, index.size() - uncheckpointed, lastCheckpoint, offset,
                                   header.fileId);
    std::vector<iovec> iov{{record.data(), record.size()}};
    bytesSinceCheckpoint = 0;
    if (WriteAt(iov, record.size(), "a checkpoint") != KEL_OK) {
        return;
    }
    lastCheckpoint = offset;
    uncheckpointed = index.size();
    ++checkpoints;
    auto slot = EncodeCheckpointSlot({checkpoints, offset, index.size()}, header.fileId);
    std::vector<iovec> slotIov{{slot.data(), slot.size()}};
    std::uint64_t written = 0;
    if (const int err = GatherWrite(*io, fd, kCheckpointSlotOffsets[checkpoints % 2], slotIov, written); err != 0) {
        Failed(Step::kCheckpoint, CodeForWriteErrno(err), "cannot write a checkpoint slot: " + ErrnoText(err));
    }
}

KelErrorCode SerializeToKel::Impl::Close() {
    if (fd < 0) {
        return closed ? KEL_OK : openResult;
    }
    closed = true;
    KelErrorCode result = KEL_OK;
    if (syncFailed) {
        result = KEL_ERR_IO;
    } else {
        auto tail = EncodeIndexAndFooter(index, end, header.fileId);
        std::vector<iovec> iov{{tail.data(), tail.size()}};
        result = WriteAt(iov, tail.size(), "the index");
        if (result == KEL_OK && junkPastEnd) {
            if (const int rc = io->FTruncate(fd, end); rc != 0) {
                result = Failed(Step::kIndex, CodeForWriteErrno(-rc),
                                "cannot cut off a failed record after the index: " + ErrnoText(-rc));
            }
        }
        // Even without its index the file is worth making durable.
        if (const KelErrorCode synced = Sync("the closed file"); result == KEL_OK) {
            result = synced;
        }
    }
    if (const int rc = io->Close(fd); rc != 0 && result == KEL_OK) {
        result = Failed(Step::kClose, CodeForWriteErrno(-rc), "cannot close: " + ErrnoText(-rc));
    }
    fd = -1;
    if (writeXml && result == KEL_OK) {
        std::string what;
        if (const int rc =
                ReplaceFileAtomically(*io, filePath.str() + ".xml",
                                      companion.Render(filePath.str(), end, header.fileId, header.createdUs), what);
            rc != 0) {
            result = Failed(Step::kCompanion, CodeForOpenErrno(-rc), "XML companion: " + what + ": " + ErrnoText(-rc));
        }
    }
    return result;
}

SerializeToKel::SerializeToKel(const char* path, bool overwrite, KELFormatVersion version, bool syncEachAtom)
    : SerializeToKel(path, overwrite, version, syncEachAtom, SerializerOptions{}) {}

SerializeToKel::SerializeToKel(const char* path, bool overwrite, KELFormatVersion version, bool syncEachAtom,
                               const SerializerOptions& options)
    : impl_(std::make_unique<Impl>()) {
    impl_->io = options.fileIo ? options.fileIo : SystemCalls();
    const SerializerSettings settings = GetSerializerSettings();
    impl_->compression = options.compression.value_or(settings.compression);
    std::string p = path != nullptr ? path : "";
    if (p.size() >= kXmlSuffix.size() && p.compare(p.size() - kXmlSuffix.size(), kXmlSuffix.size(), kXmlSuffix) == 0) {
        p.resize(p.size() - kXmlSuffix.size());
        impl_->writeXml = true;
    }
    impl_->filePath = p;
    impl_->syncEachAtom = syncEachAtom;
    try {
        impl_->Open(overwrite && settings.allowReplace, version);
    } catch (const std::exception& e) {
        impl_->openResult = impl_->Failed(Step::kOpen, KEL_ERR_IO, e.what());
    }
}

SerializeToKel::~SerializeToKel() {
    try {
        impl_->Close();
    } catch (...) {
        // A destructor must not throw; Close() reported what it could.
    }
}

KelErrorCode SerializeToKel::SerializeAtom(const std::shared_ptr<Atom>& atom) {
    if (impl_->fd < 0) {
        // Refusals after a failed open are the open's failure again, which
        // has been logged already.
        if (impl_->openResult != KEL_OK) {
            return impl_->Failed(Step::kOpen, impl_->openResult, impl_->lastError);
        }
        return impl_->Failed(Step::kRefused, KEL_ERR_NOT_OPEN, "refusing the atom: the file is closed");
    }
    if (!atom) {
        return impl_->Failed(Step::kAtom, KEL_ERR_INVALID, "empty atom");
    }
    try {
        return impl_->Serialize(*atom);
    } catch (const std::bad_alloc&) {
        return impl_->Failed(Step::kAtom, KEL_ERR_IO, "out of memory");
    } catch (const std::exception& e) {
        return impl_->Failed(Step::kAtom, KEL_ERR_INVALID, e.what());
    }
}

const KelCommon::String& SerializeToKel::GetFilePath() const noexcept { return impl_->filePath; }

KelErrorCode SerializeToKel::Close() {
    try {
        return impl_->Close();
    } catch (const std::exception& e) {
        return impl_->Failed(Step::kClose, KEL_ERR_IO, e.what());
    }
}

KelErrorCode SerializeToKel::GetOpenResult() const noexcept { return impl_->openResult; }

std::uint64_t SerializeToKel::GetNumAtomsWritten() const noexcept { return impl_->numAtoms; }

std::uint64_t SerializeToKel::GetBytesWritten() const noexcept { return impl_->end; }

const std::string& SerializeToKel::GetLastError() const noexcept { return impl_->lastError; }

std::vector<SerializerFailure> TakeSerializerFailures() { return FailureRecord::Instance().Take(); }

void SetSerializerSettings(const SerializerSettings& settings) { Settings::Instance().Set(settings); }

SerializerSettings GetSerializerSettings() { return Settings::Instance().Get(); }

}  // namespace KEL
