#pragma once

#include <KEL/KelErrorCode.h>

#include <cstdint>
#include <memory>
#include <string>

namespace KEL::container {

// A whole file mapped read-only into memory.
//
// The mapping lives as long as the last shared_ptr to it; buffers handed out
// as views of it hold such a pointer. The size is the file's size when it was
// opened: bytes appended later are not seen. The file must not be truncated
// while mapped (reading a page past the new end raises SIGBUS).
class MappedFile {
public:
    // Opens and maps `path`. On failure returns empty and sets `code`
    // (KEL_ERR_NOT_FOUND, KEL_ERR_ACCESS_DENIED, KEL_ERR_NOT_A_CONTAINER for
    // something that is not a regular file, KEL_ERR_IO) and `reason`.
    static std::shared_ptr<const MappedFile> Open(const std::string& path, KelErrorCode& code, std::string& reason);

    ~MappedFile();
    MappedFile(const MappedFile&) = delete;
    MappedFile& operator=(const MappedFile&) = delete;

    const std::uint8_t* Data() const noexcept { return data_; }
    std::uint64_t Size() const noexcept { return size_; }

private:
    MappedFile(const std::uint8_t* data, std::uint64_t size) : data_(data), size_(size) {}
    const std::uint8_t* data_;
    std::uint64_t size_;
};

}  // namespace KEL::container
