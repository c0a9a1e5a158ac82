#include <KEL/SerializeToKel.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <new>
#include <system_error>

#include "container/AtomRecord.h"
#include "container/ContainerFormat.h"
#include "container/ContainerIndex.h"
#include "container/ContainerLog.h"
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

}  // namespace

// The file grows by whole records: `end` is the end of the last record that
// was written completely, and a failed write is cut back to it, so the file
// on disk is always a valid container prefix that a reader can scan.
struct SerializeToKel::Impl {
    KelCommon::String filePath;
    bool writeXml = false;
    bool syncEachAtom = false;
    int fd = -1;
    KelErrorCode openResult = KEL_OK;
    bool closed = false;
    std::uint64_t end = 0;
    std::vector<IndexEntry> index;
    XmlCompanion companion;
    std::uint64_t numAtoms = 0;
    std::string lastError;

    KelErrorCode Failed(KelErrorCode code, const std::string& what) {
        lastError = what;
        LogContainer(2, "Container '%s': %s", filePath.c_str(), what.c_str());
        return code;
    }

    void Open(bool overwrite, KELFormatVersion version);
    KelErrorCode WriteAt(std::vector<iovec>& iov, std::uint64_t size, const char* what);
    KelErrorCode Serialize(const Atom& atom);
    KelErrorCode Close();
};

void SerializeToKel::Impl::Open(bool overwrite, KELFormatVersion version) {
    if (version != CURRENT_VERSION) {
        openResult = Failed(KEL_ERR_UNSUPPORTED_VERSION,
                            "cannot write format version " + std::to_string(static_cast<unsigned>(version)));
        return;
    }
    const std::filesystem::path path(filePath.str());
    if (path.empty()) {
        openResult = Failed(KEL_ERR_INVALID, "empty path");
        return;
    }
    if (path.has_parent_path()) {
        std::error_code ec;
        std::filesystem::create_directories(path.parent_path(), ec);
        if (ec) {
            openResult = Failed(CodeForOpenErrno(ec.value()),
                                "cannot create directory '" + path.parent_path().string() + "': " + ec.message());
            return;
        }
    }
    // Replacing unlinks the old file rather than truncating it, so a reader
    // that still maps the old file keeps valid pages.
    if (overwrite && ::unlink(filePath.c_str()) != 0 && errno != ENOENT) {
        const int err = errno;
        openResult = Failed(CodeForOpenErrno(err),
                            std::string("cannot replace the existing file: ") + std::generic_category().message(err));
        return;
    }
    fd = ::open(filePath.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd < 0) {
        const int err = errno;
        openResult = Failed(CodeForOpenErrno(err),
                            err == EEXIST ? std::string("file exists and overwrite is off")
                                          : std::string("cannot create: ") + std::generic_category().message(err));
        return;
    }
    std::array<std::uint8_t, kFirstRecordOffset> header{};
    const auto fileHeader = MakeFileHeader(kFormatVersion);
    std::memcpy(header.data(), fileHeader.data(), fileHeader.size());
    std::vector<iovec> iov{{header.data(), header.size()}};
    const KelErrorCode code = WriteAt(iov, header.size(), "file header");
    if (code != KEL_OK) {
        ::close(fd);
        fd = -1;
        ::unlink(filePath.c_str());
        openResult = code;
    }
}

KelErrorCode SerializeToKel::Impl::WriteAt(std::vector<iovec>& iov, std::uint64_t size, const char* what) {
    std::uint64_t written = 0;
    const int err = GatherWrite(fd, end, iov, written);
    if (err != 0) {
        // Cut the partial record off; if even that fails a reader still
        // stops at the last complete record.
        if (written != 0 && ::ftruncate(fd, static_cast<off_t>(end)) != 0) {
            LogContainer(2, "Container '%s': cannot cut back a partial record: %s", filePath.c_str(),
                         std::generic_category().message(errno).c_str());
        }
        return Failed(CodeForWriteErrno(err),
                      std::string("cannot write ") + what + ": " + std::generic_category().message(err));
    }
    end += size;
    return KEL_OK;
}

KelErrorCode SerializeToKel::Impl::Serialize(const Atom& atom) {
    EncodedAtomRecord record;
    std::string error;
    if (const KelErrorCode code = EncodeAtomRecord(atom, end, record, error); code != KEL_OK) {
        return Failed(code, "cannot store atom of stream " + std::to_string(atom.GetStreamId()) + ": " + error);
    }
    const std::uint64_t offset = end;
    if (const KelErrorCode code = WriteAt(record.iov, record.totalSize, "atom record"); code != KEL_OK) {
        return code;
    }
    if (syncEachAtom && ::fdatasync(fd) != 0) {
        const int err = errno;
        return Failed(CodeForWriteErrno(err), std::string("cannot sync: ") + std::generic_category().message(err));
    }
    index.push_back({offset, atom.GetFrameNr(), atom.GetStreamId()});
    if (writeXml) {
        companion.AddAtom(atom);
    }
    ++numAtoms;
    return KEL_OK;
}

KelErrorCode SerializeToKel::Impl::Close() {
    if (fd < 0) {
        return closed ? KEL_OK : openResult;
    }
    KelErrorCode result = KEL_OK;
    auto tail = EncodeIndexAndFooter(index, end);
    std::vector<iovec> iov{{tail.data(), tail.size()}};
    result = WriteAt(iov, tail.size(), "index");
    if (::fdatasync(fd) != 0 && result == KEL_OK) {
        const int err = errno;
        result = Failed(CodeForWriteErrno(err), std::string("cannot sync: ") + std::generic_category().message(err));
    }
    if (::close(fd) != 0 && result == KEL_OK) {
        const int err = errno;
        result = Failed(CodeForWriteErrno(err), std::string("cannot close: ") + std::generic_category().message(err));
    }
    fd = -1;
    closed = true;
    if (writeXml) {
        std::string error;
        if (!companion.Write(filePath.str() + ".xml", filePath.str(), end, error) && result == KEL_OK) {
            result = Failed(KEL_ERR_IO, error);
        }
    }
    return result;
}

SerializeToKel::SerializeToKel(const char* path, bool overwrite, KELFormatVersion version, bool syncEachAtom)
    : impl_(std::make_unique<Impl>()) {
    std::string p = path != nullptr ? path : "";
    if (p.size() >= kXmlSuffix.size() && p.compare(p.size() - kXmlSuffix.size(), kXmlSuffix.size(), kXmlSuffix) == 0) {
        p.resize(p.size() - kXmlSuffix.size());
        impl_->writeXml = true;
    }
    impl_->filePath = p;
    impl_->syncEachAtom = syncEachAtom;
    try {
        impl_->Open(overwrite, version);
    } catch (const std::exception& e) {
        impl_->openResult = impl_->Failed(KEL_ERR_IO, e.what());
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
        return impl_->openResult != KEL_OK ? impl_->openResult : KEL_ERR_NOT_OPEN;
    }
    if (!atom) {
        return impl_->Failed(KEL_ERR_INVALID, "empty atom");
    }
    try {
        return impl_->Serialize(*atom);
    } catch (const std::bad_alloc&) {
        return impl_->Failed(KEL_ERR_IO, "out of memory");
    } catch (const std::exception& e) {
        return impl_->Failed(KEL_ERR_INVALID, e.what());
    }
}

const KelCommon::String& SerializeToKel::GetFilePath() const noexcept { return impl_->filePath; }

KelErrorCode SerializeToKel::Close() {
    try {
        return impl_->Close();
    } catch (const std::exception& e) {
        return impl_->Failed(KEL_ERR_IO, e.what());
    }
}

KelErrorCode SerializeToKel::GetOpenResult() const noexcept { return impl_->openResult; }

bool SerializeToKel::WritesXmlCompanion() const noexcept { return impl_->writeXml; }

std::uint64_t SerializeToKel::GetNumAtomsWritten() const noexcept { return impl_->numAtoms; }

std::uint64_t SerializeToKel::GetBytesWritten() const noexcept { return impl_->end; }

const std::string& SerializeToKel::GetLastError() const noexcept { return impl_->lastError; }

}  // namespace KEL
