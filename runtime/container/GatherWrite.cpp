#include "container/GatherWrite.h"

#include <limits.h>

#include <algorithm>
#include <cerrno>

namespace KEL::container {

int GatherWrite(FileIo& io, int fd, std::uint64_t offset, std::vector<iovec>& iov, std::uint64_t& written) {
    written = 0;
    std::size_t first = 0;
    while (first < iov.size()) {
        if (iov[first].iov_len == 0) {
            ++first;
            continue;
        }
        const int count = static_cast<int>(std::min<std::size_t>(iov.size() - first, IOV_MAX));
        const std::int64_t n = io.PWriteV(fd, iov.data() + first, count, offset + written);
        if (n < 0) {
            if (n == -EINTR) {
                continue;
            }
            return static_cast<int>(-n);
        }
        if (n == 0) {
            return EIO;
        }
        written += static_cast<std::uint64_t>(n);
        auto left = static_cast<std::size_t>(n);
        while (left > 0) {
            const std::size_t take = std::min(left, iov[first].iov_len);
            iov[first].iov_base = static_cast<std::uint8_t*>(iov[first].iov_base) + take;
            iov[first].iov_len -= take;
            left -= take;
            if (iov[first].iov_len == 0) {
                ++first;
            }
        }
    }
    return 0;
}

}  // namespace KEL::container
