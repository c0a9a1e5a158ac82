#pragma once

#include <sys/uio.h>

#include <cstdint>
#include <vector>

#include "container/FileIo.h"

namespace KEL::container {

// Writes all bytes described by `iov` at file offset `offset` with as few
// pwritev calls as the system allows (it caps the vector length and the
// bytes per call), continuing after short writes and EINTR. Returns 0 when
// everything was written, otherwise the (positive) errno of the failing
// call; `written` tells how many bytes reached the file either way. `iov`
// is consumed.
int GatherWrite(FileIo& io, int fd, std::uint64_t offset, std::vector<iovec>& iov, std::uint64_t& written);

}  // namespace KEL::container
