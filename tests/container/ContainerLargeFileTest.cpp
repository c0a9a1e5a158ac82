#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "container/AtomRecord.h"
#include "container/ContainerFiles.h"
#include "container/ContainerFormat.h"
#include "container/ContainerIndex.h"
#include "container/GatherWrite.h"

namespace {

using namespace kel_test;
using namespace KEL::container;
using ContainerLargeFile = ContainerTest;

// Writes `bytes` at `offset` of the open file `fd`.
void WriteAt(int fd, std::uint64_t offset, std::vector<iovec> iov, std::uint64_t size) {
    std::uint64_t written = 0;
    SystemFileIo io;
    ASSERT_EQ(GatherWrite(io, fd, offset, iov, written), 0);
    ASSERT_EQ(written, size);
}

// A file whose atom records lie beyond 4 GiB: the space before them is a hole
// (a sparse file), so the test costs a few kilobytes of disk.
TEST_F(ContainerLargeFile, RecordsBeyondFourGiBAreReadThroughTheIndex) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    ASSERT_GE(fd, 0);
    constexpr std::uint64_t kFileId = 0x1234;
    auto header = EncodeFileHeader({kFormatVersion, kLayoutRevision, kFileId, 0});
    WriteAt(fd, 0, {{header.data(), header.size()}}, header.size());

    const std::vector<KEL::AtomPtr> atoms{MakeFrameAtom(1, 0, 8, 8), MakeFrameAtom(1, 1, 8, 8)};
    std::uint64_t offset = (5ULL << 30) + 8;  // 5 GiB: offsets need all 64 bits
    std::vector<IndexEntry> index;
    for (const auto& atom : atoms) {
        EncodedAtomRecord record;
        std::string error;
        ASSERT_EQ(EncodeAtomRecord(*atom, offset, kFileId, record, error), KEL::KEL_OK) << error;
        WriteAt(fd, offset, record.iov, record.totalSize);
        index.push_back({offset, atom->GetTimeStamp(), atom->GetFrameNr(), atom->GetStreamId()});
        offset += record.totalSize;
    }
    auto tail = EncodeIndexAndFooter(index, offset, kFileId);
    WriteAt(fd, offset, {{tail.data(), tail.size()}}, tail.size());
    ::close(fd);

    auto reader = OpenContainer(path);
    EXPECT_TRUE(reader->GetDamageReport().indexUsed);
    EXPECT_GT(reader->GetFileSize(), 5ULL << 30);
    for (const auto& atom : atoms) {
        ExpectSameAtom(atom, reader->GetFrameAtom(1, atom->GetFrameNr()));
    }
}

}  // namespace
