#pragma once

#include <sys/types.h>
#include <sys/uio.h>

#include <cstdint>
#include <memory>
#include <string>

namespace KEL::container {

// The file-system operations through which the serializer changes files:
// every byte it writes, every sync, cut, rename and removal goes through one
// object of this interface. The process normally uses the system's calls;
// tests install an implementation that records each operation (to rebuild
// what a crash at any point would leave on disk) or fails a chosen one (to
// check that every failure is reported and loses nothing acknowledged).
//
// Results follow the kernel's convention: 0 (or a count, or a descriptor)
// on success, a negative errno on failure. Implementations must be safe to
// call from several threads at once (several serializers may write at once).
class FileIo {
public:
    virtual ~FileIo() = default;

    // open(2): a descriptor, or -errno.
    virtual int Open(const std::string& path, int flags, mode_t mode) = 0;
    // pwritev(2): the bytes written (possibly fewer than asked), or -errno.
    virtual std::int64_t PWriteV(int fd, const iovec* iov, int count, std::uint64_t offset) = 0;
    virtual int FDataSync(int fd) = 0;
    virtual int FTruncate(int fd, std::uint64_t size) = 0;
    virtual int Close(int fd) = 0;
    virtual int Unlink(const std::string& path) = 0;
    // Renames `from` to `to`. With `replace` false an existing `to` is left
    // alone and -EEXIST returned.
    virtual int Rename(const std::string& from, const std::string& to, bool replace) = 0;
    // Makes the directory's entries (files created, renamed or removed in
    // it) durable.
    virtual int SyncDirectory(const std::string& dir) = 0;
};

// The system's calls.
class SystemFileIo final : public FileIo {
public:
    int Open(const std::string& path, int flags, mode_t mode) override;
    std::int64_t PWriteV(int fd, const iovec* iov, int count, std::uint64_t offset) override;
    int FDataSync(int fd) override;
    int FTruncate(int fd, std::uint64_t size) override;
    int Close(int fd) override;
    int Unlink(const std::string& path) override;
    int Rename(const std::string& from, const std::string& to, bool replace) override;
    int SyncDirectory(const std::string& dir) override;
};

// A name in the directory of `path` for a file that is written and then
// renamed to `path`: hidden, unique in the process and unlikely to meet
// another process's.
std::string TemporaryNameFor(const std::string& path);

// Replaces the file at `path` by `bytes` so that a crash leaves either the
// old file or the whole new one: the bytes go to a temporary file, which is
// synced, renamed over `path`, and the directory synced. Returns 0 or
// -errno, with `what` naming the step that failed.
int ReplaceFileAtomically(FileIo& io, const std::string& path, const std::string& bytes, std::string& what);

// The directory part of `path` ("" for a bare name, meaning the current
// directory).
std::string DirectoryOf(const std::string& path);

// The system's calls, one object shared by every serializer that is given
// no FileIo of its own.
std::shared_ptr<FileIo> SystemCalls();

}  // namespace KEL::container
