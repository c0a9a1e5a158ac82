#include "container/FileIo.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <filesystem>
#include <random>
#include <vector>

#include "container/GatherWrite.h"

namespace KEL::container {

namespace {

int ResultOf(int rc) { return rc < 0 ? -errno : rc; }

}  // namespace

int SystemFileIo::Open(const std::string& path, int flags, mode_t mode) {
    int fd = -1;
    do {
        fd = ::open(path.c_str(), flags, mode);
    } while (fd < 0 && errno == EINTR);
    return ResultOf(fd);
}

std::int64_t SystemFileIo::PWriteV(int fd, const iovec* iov, int count, std::uint64_t offset) {
    const ssize_t n = ::pwritev(fd, iov, count, static_cast<off_t>(offset));
    return n < 0 ? -errno : n;
}

int SystemFileIo::FDataSync(int fd) { return ResultOf(::fdatasync(fd)); }

int SystemFileIo::FTruncate(int fd, std::uint64_t size) { return ResultOf(::ftruncate(fd, static_cast<off_t>(size))); }

int SystemFileIo::Close(int fd) {
    // Linux releases the descriptor even when close reports an error, so it
    // is never retried.
    return ResultOf(::close(fd));
}

int SystemFileIo::Unlink(const std::string& path) { return ResultOf(::unlink(path.c_str())); }

int SystemFileIo::Rename(const std::string& from, const std::string& to, bool replace) {
    if (replace) {
        return ResultOf(::rename(from.c_str(), to.c_str()));
    }
    if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) {
        return 0;
    }
    if (errno != EINVAL && errno != ENOSYS) {
        return -errno;
    }
    // File systems without RENAME_NOREPLACE: a hard link fails on an
    // existing name just as atomically.
    if (::link(from.c_str(), to.c_str()) != 0) {
        return -errno;
    }
    return ResultOf(::unlink(from.c_str()));
}

int SystemFileIo::SyncDirectory(const std::string& dir) {
    const int fd = ::open(dir.empty() ? "." : dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) {
        return -errno;
    }
    const int rc = ResultOf(::fsync(fd));
    ::close(fd);
    return rc;
}

std::string DirectoryOf(const std::string& path) { return std::filesystem::path(path).parent_path().string(); }

std::string TemporaryNameFor(const std::string& path) {
    static std::atomic<std::uint64_t> counter{0};
    static const std::uint64_t processSalt = std::random_device{}();
    char suffix[40];
    std::snprintf(suffix, sizeof suffix, ".%d.%llx.tmp", static_cast<int>(::getpid()),
                  static_cast<unsigned long long>(processSalt ^ (counter.fetch_add(1) * 0x9E3779B97F4A7C15ULL)));
    const std::filesystem::path p(path);
    return (p.parent_path() / ("." + p.filename().string() + suffix)).string();
}

int ReplaceFileAtomically(FileIo& io, const std::string& path, const std::string& bytes, std::string& what) {
    const std::string temp = TemporaryNameFor(path);
    const int fd = io.Open(temp, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd < 0) {
        what = "cannot create '" + temp + "'";
        return fd;
    }
    std::vector<iovec> iov{{const_cast<char*>(bytes.data()), bytes.size()}};
    std::uint64_t written = 0;
    int rc = -GatherWrite(io, fd, 0, iov, written);
    what = "cannot write '" + temp + "'";
    if (rc == 0) {
        rc = io.FDataSync(fd);
        what = "cannot sync '" + temp + "'";
    }
    const int closed = io.Close(fd);
    if (rc == 0 && closed != 0) {
        rc = closed;
        what = "cannot close '" + temp + "'";
    }
    if (rc == 0) {
        rc = io.Rename(temp, path, true);
        what = "cannot rename '" + temp + "' to '" + path + "'";
    }
    if (rc != 0) {
        io.Unlink(temp);
        return rc;
    }
    rc = io.SyncDirectory(DirectoryOf(path));
    what = rc == 0 ? std::string() : "cannot sync the directory of '" + path + "'";
    return rc;
}

std::shared_ptr<FileIo> SystemCalls() {
    static const auto system = std::make_shared<SystemFileIo>();
    return system;
}

}  // namespace KEL::container
