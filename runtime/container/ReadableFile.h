#pragma once

#include <KEL/KelErrorCode.h>

#include <cstdint>
#include <memory>
#include <string>

namespace KEL::container {

// A container file opened for reading with positioned reads (pread).
//
// Opening never blocks and accepts regular files only: a FIFO, socket,
// device or directory is refused at once. Reads never fault: a file that
// another process shortens or rewrites while it is read yields short reads
// or bytes that fail their checks, never a signal. The size is read afresh
// on demand, so a growing file can be followed.
//
// Thread-safe: positioned reads share no file offset.
class ReadableFile {
public:
    // On failure returns empty and sets `code` (KEL_ERR_NOT_FOUND,
    // KEL_ERR_ACCESS_DENIED, KEL_ERR_NOT_A_CONTAINER for what is not a
    // regular file, KEL_ERR_IO) and `reason`.
    static std::shared_ptr<const ReadableFile> Open(const std::string& path, KelErrorCode& code, std::string& reason);

    ~ReadableFile();
    ReadableFile(const ReadableFile&) = delete;
    ReadableFile& operator=(const ReadableFile&) = delete;

    // Reads up to `size` bytes at `offset` into `dst`, continuing after short
    // reads. Returns the bytes read (fewer only at the end of the file), or
    // -errno.
    std::int64_t ReadAt(std::uint64_t offset, void* dst, std::size_t size) const;
    // True when all `size` bytes could be read.
    bool ReadExactly(std::uint64_t offset, void* dst, std::size_t size) const {
        return ReadAt(offset, dst, size) == static_cast<std::int64_t>(size);
    }
    // The file's size now (0 when it cannot be determined).
    std::uint64_t CurrentSize() const;
    // The offset of the first byte at or after `offset` that is not in a
    // hole of a sparse file: `offset` itself when it holds data or the file
    // system cannot tell, UINT64_MAX when only holes follow.
    std::uint64_t NextData(std::uint64_t offset) const;
    // Asks the kernel to start reading a range that will be needed soon.
    void WillNeed(std::uint64_t offset, std::uint64_t size) const;

private:
    explicit ReadableFile(int fd) : fd_(fd) {}
    int fd_;
};

}  // namespace KEL::container
