#include "container/MappedFile.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <system_error>

namespace KEL::container {

namespace {

KelErrorCode CodeForErrno(int err) {
    switch (err) {
        case ENOENT:
        case ENOTDIR:
            return KEL_ERR_NOT_FOUND;
        case EACCES:
        case EPERM:
            return KEL_ERR_ACCESS_DENIED;
        default:
            return KEL_ERR_IO;
    }
}

}  // namespace

std::shared_ptr<const MappedFile> MappedFile::Open(const std::string& path, KelErrorCode& code, std::string& reason) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        const int err = errno;
        code = CodeForErrno(err);
        reason = std::generic_category().message(err);
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
        reason = "not a regular file";
        return nullptr;
    }
    const auto size = static_cast<std::uint64_t>(st.st_size);
    const std::uint8_t* data = nullptr;
    if (size != 0) {
        void* p = ::mmap(nullptr, size, PROT_READ, MAP_SHARED, fd, 0);
        if (p == MAP_FAILED) {
            const int err = errno;
            ::close(fd);
            code = err == ENOMEM ? KEL_ERR_IO : CodeForErrno(err);
            reason = std::string("cannot map the file: ") + std::generic_category().message(err);
            return nullptr;
        }
        data = static_cast<const std::uint8_t*>(p);
    }
    // The mapping stays valid after the descriptor is closed.
    ::close(fd);
    return std::shared_ptr<const MappedFile>(new MappedFile(data, size));
}

MappedFile::~MappedFile() {
    if (data_ != nullptr) {
        ::munmap(const_cast<std::uint8_t*>(data_), size_);
    }
}

}  // namespace KEL::container
