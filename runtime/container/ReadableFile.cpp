#include "container/ReadableFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <system_error>

namespace KEL::container {

namespace {

KelErrorCode CodeForErrno(int err) {
    switch (err) {
        case ENOENT:
        case ENOTDIR:
        case ELOOP:
        case ENAMETOOLONG:
            return KEL_ERR_NOT_FOUND;
        case EACCES:
        case EPERM:
            return KEL_ERR_ACCESS_DENIED;
        case ENXIO:  // a socket, or a device without its driver
        case ENODEV:
            return KEL_ERR_NOT_A_CONTAINER;
        default:
            return KEL_ERR_IO;
    }
}

const char* KindOf(mode_t mode) {
    if (S_ISDIR(mode)) {
        return "a directory";
    }
    if (S_ISFIFO(mode)) {
        return "a FIFO";
    }
    if (S_ISSOCK(mode)) {
        return "a socket";
    }
    if (S_ISCHR(mode)) {
        return "a character device";
    }
    if (S_ISBLK(mode)) {
        return "a block device";
    }
    return "not a regular file";
}

}  // namespace

std::shared_ptr<const ReadableFile> ReadableFile::Open(const std::string& path, KelErrorCode& code,
                                                       std::string& reason) {
    // O_NONBLOCK: opening a FIFO would otherwise wait for a writer.
    int fd = -1;
    do {
        fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    } while (fd < 0 && errno == EINTR);
    if (fd < 0) {
        const int err = errno;
        code = CodeForErrno(err);
        reason = err == ENXIO ? std::string("not a regular file") : std::generic_category().message(err);
        return nullptr;
    }
    struct stat st {};
    if (::fstat(fd, &st) != 0) {
        const int err = errno;
        ::close(fd);
        code = KEL_ERR_IO;
        reason = std::generic_category().message(err);
        return nullptr;
    }
    if (!S_ISREG(st.st_mode)) {
        ::close(fd);
        code = KEL_ERR_NOT_A_CONTAINER;
        reason = std::string(KindOf(st.st_mode)) + ", not a container file";
        return nullptr;
    }
    return std::shared_ptr<const ReadableFile>(new ReadableFile(fd));
}

ReadableFile::~ReadableFile() { ::close(fd_); }

std::int64_t ReadableFile::ReadAt(std::uint64_t offset, void* dst, std::size_t size) const {
    auto* out = static_cast<std::uint8_t*>(dst);
    std::size_t done = 0;
    while (done < size) {
        const ssize_t n = ::pread(fd_, out + done, size - done, static_cast<off_t>(offset + done));
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            return -errno;
        }
        if (n == 0) {
            break;
        }
        done += static_cast<std::size_t>(n);
    }
    return static_cast<std::int64_t>(done);
}

std::uint64_t ReadableFile::CurrentSize() const {
    struct stat st {};
    return ::fstat(fd_, &st) == 0 ? static_cast<std::uint64_t>(st.st_size) : 0;
}

std::uint64_t ReadableFile::NextData(std::uint64_t offset) const {
    const off_t data = ::lseek(fd_, static_cast<off_t>(offset), SEEK_DATA);
    if (data >= 0) {
        return std::max(offset, static_cast<std::uint64_t>(data));
    }
    return errno == ENXIO ? UINT64_MAX : offset;
}

void ReadableFile::WillNeed(std::uint64_t offset, std::uint64_t size) const {
    (void)::posix_fadvise(fd_, static_cast<off_t>(offset), static_cast<off_t>(size), POSIX_FADV_WILLNEED);
}

}  // namespace KEL::container
