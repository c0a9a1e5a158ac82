#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <string>

namespace kel_bench {

// Makes the next read of `path` come from the disk: as root by dropping the
// whole page cache (after a sync), otherwise by asking the kernel to forget
// the file's pages (POSIX_FADV_DONTNEED after writing them back).
inline void DropFromCache(const std::string& path) {
    ::sync();
    if (std::FILE* f = std::fopen("/proc/sys/vm/drop_caches", "w")) {
        std::fputs("1", f);
        if (std::fclose(f) == 0) {
            return;
        }
    }
    const int fd = ::open(path.c_str(), O_RDONLY);
    if (fd < 0) {
        return;
    }
    ::fdatasync(fd);
    (void)::posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED);
    ::close(fd);
}

}  // namespace kel_bench
