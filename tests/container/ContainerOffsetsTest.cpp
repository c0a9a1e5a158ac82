// Where records land in the file: payloads at every offset modulo the
// alignment, and records beyond 4 GiB.

#include <KEL/DataTypeBinary.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <random>
#include <set>

#include "container/AtomRecord.h"
#include "container/ContainerFiles.h"
#include "container/ContainerFormat.h"
#include "container/ContainerIndex.h"
#include "container/GatherWrite.h"

namespace {

using namespace kel_test;
using namespace KEL::container;
using ContainerOffsets = ContainerTest;

// The serializer hashes a payload in the pieces of its gather list; the
// reader hashes it in one go. Both must agree wherever the payload starts
// relative to the alignment boundary and however it is cut into pieces.
TEST(PayloadChecksum, StreamedAndOneShotAgreeAtEveryOffsetModulo64) {
    std::mt19937 random(7);
    std::vector<std::uint8_t> bytes(4096);
    for (auto& b : bytes) {
        b = static_cast<std::uint8_t>(random());
    }
    for (std::uint64_t offset = 0; offset < 2 * kBlobAlignment; ++offset) {
        for (std::size_t size : {0UL, 1UL, 7UL, 63UL, 64UL, 65UL, 130UL, 4096UL}) {
            PayloadHasher hasher(offset);
            std::size_t done = 0;
            while (done < size) {
                const std::size_t piece = std::min<std::size_t>(size - done, 1 + random() % 80);
                hasher.Update(bytes.data() + done, piece);
                done += piece;
            }
            ASSERT_EQ(hasher.Digest(), PayloadChecksum(bytes.data(), size, offset))
                << "offset " << offset << " size " << size;
        }
    }
}

// Binary payloads of 1 + 7k bytes put successive records at every 8-byte
// residue modulo 64; every one of them must come back.
TEST_F(ContainerOffsets, AtomsAtEveryRecordOffsetModulo64ReadBack) {
    std::vector<KEL::AtomPtr> atoms;
    for (std::uint32_t i = 0; i < 64; ++i) {
        auto atom = std::make_shared<KEL::Atom>(1, i, i);
        atom->AddDataLayer(std::make_shared<KEL::DataTypeBinary>("b", PatternBuffer(1 + 7 * i, i)), true);
        atoms.push_back(atom);
    }
    std::set<std::uint64_t> residues;
    std::uint64_t start = kFirstRecordOffset;
    for (const auto end : WriteContainer(path, atoms)) {
        residues.insert((start + kRecordHeaderSize) % kBlobAlignment);
        start = end;
    }
    EXPECT_EQ(residues.size(), kBlobAlignment / kRecordAlignment);

    auto reader = OpenContainer(path);
    for (const auto& atom : atoms) {
        ExpectSameAtom(atom, reader->GetFrameAtom(1, atom->GetFrameNr()));
    }
    EXPECT_EQ(reader->GetDamageReport().skippedRecords, 0U);
}

// Writes `bytes` at `offset` of the open file `fd`.
void WriteAt(int fd, std::uint64_t offset, std::vector<iovec> iov, std::uint64_t size) {
    std::uint64_t written = 0;
    SystemFileIo io;
    ASSERT_EQ(GatherWrite(io, fd, offset, iov, written), 0);
    ASSERT_EQ(written, size);
}

// A file whose atom records lie beyond 4 GiB: the space before them is a hole
// (a sparse file), so the test costs a few kilobytes of disk.
TEST_F(ContainerOffsets, RecordsBeyondFourGiBAreReadThroughTheIndex) {
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
        ASSERT_EQ(EncodeAtomRecord(*atom, offset, kFileId, {}, record, error), KEL::KEL_OK) << error;
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
