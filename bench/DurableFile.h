#pragma once

// The baselines of the write benchmarks create their file with the same
// durability as the serializer, so that both sides pay for the same
// guarantees: the first bytes are written to a temporary file beside the
// target and synced, the temporary is renamed into place and the directory
// synced (the path names a valid file at every moment, and the entry
// survives a power loss); the caller then appends and syncs at close.

#include <fcntl.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

namespace kel_bench {

// Returns a descriptor open for writing at offset `headerBytes`, or -1.
inline int CreateDurably(const std::string& path, std::size_t headerBytes = 128) {
    const std::filesystem::path target(path);
    const std::string temporary = (target.parent_path() / ("." + target.filename().string() + ".tmp")).string();
    const int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0) {
        return -1;
    }
    const std::vector<char> header(headerBytes, 0);
    const int dir = ::open(target.parent_path().c_str(), O_RDONLY | O_DIRECTORY);
    const bool ok = ::write(fd, header.data(), header.size()) == static_cast<ssize_t>(header.size()) &&
                    ::fdatasync(fd) == 0 && ::rename(temporary.c_str(), path.c_str()) == 0 && dir >= 0 &&
                    ::fsync(dir) == 0;
    if (dir >= 0) {
        ::close(dir);
    }
    if (!ok) {
        ::close(fd);
        return -1;
    }
    return fd;
}

}  // namespace kel_bench
