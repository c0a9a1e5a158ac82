// Damage to a container costs the damaged bytes only: each test damages a
// file the way disks and crashes do (flipped bits anywhere, records of an
// earlier file left at the same place) and checks exactly which atoms come
// back; the verifier locates the damage.

#include <KEL/ContainerVerifier.h>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <random>

#include "container/ContainerFiles.h"
#include "container/ContainerFormat.h"

// Reads of the process fail with EIO while `gFailReadsAt` lies in the range
// they ask for (the runtime's positioned reads resolve to these definitions
// of the test executable, which otherwise pass them on), the way a failing
// disk sector answers.
namespace {
std::atomic<std::int64_t> gFailReadsAt{-1};

ssize_t ReadOrFail(const char* name, int fd, void* buf, std::size_t count, off_t offset) {
    const std::int64_t at = gFailReadsAt.load();
    if (at >= offset && at < offset + static_cast<off_t>(count)) {
        errno = EIO;
        return -1;
    }
    using Pread = ssize_t (*)(int, void*, std::size_t, off_t);
    static const auto pread64Next = reinterpret_cast<Pread>(::dlsym(RTLD_NEXT, "pread64"));
    static const auto preadNext = reinterpret_cast<Pread>(::dlsym(RTLD_NEXT, "pread"));
    return (name[5] == '6' ? pread64Next : preadNext)(fd, buf, count, offset);
}
}  // namespace

extern "C" ssize_t pread(int fd, void* buf, std::size_t count, off_t offset) {
    return ReadOrFail("pread", fd, buf, count, offset);
}
extern "C" ssize_t pread64(int fd, void* buf, std::size_t count, off_t offset) {
    return ReadOrFail("pread64", fd, buf, count, offset);
}

namespace {

using namespace kel_test;
using KEL::AtomPtr;
using ContainerDamage = ContainerTest;

// Where each record starts, given where each ends.
std::vector<std::uint64_t> Starts(const std::vector<std::uint64_t>& ends) {
    std::vector<std::uint64_t> starts{KEL::container::kFirstRecordOffset};
    starts.insert(starts.end(), ends.begin(), ends.end() - 1);
    return starts;
}

// 16 atoms of about 1 KiB each over two streams.
std::vector<AtomPtr> SixteenAtoms() {
    std::vector<AtomPtr> atoms;
    for (std::uint32_t f = 0; f < 8; ++f) {
        atoms.push_back(MakeFrameAtom(1, f, 8, 8));
        atoms.push_back(MakeFrameAtom(2, f, 8, 8));
    }
    return atoms;
}

// One bit flipped in a file, closed or not, a few times in each of its parts
// (file header, checkpoint slots, every atom record, index, footer): the atom
// whose record holds it is lost, every other atom comes back, and the
// verifier counts the same atoms as recoverable. A hit in the index or the
// footer makes the reader walk the records instead.
TEST_F(ContainerDamage, OneFlippedBitCostsAtMostTheAtomWhoseRecordHoldsIt) {
    using namespace KEL::container;
    const auto atoms = SixteenAtoms();
    std::mt19937_64 random(2024);
    for (const bool closed : {true, false}) {
        const auto ends = WriteContainer(path, atoms, closed);
        const auto starts = Starts(ends);
        const auto original = ReadFileBytes(path);
        std::vector<std::uint64_t> bounds{0, kFileHeaderSize, kFirstRecordOffset};
        bounds.insert(bounds.end(), ends.begin(), ends.end());
        if (closed) {
            bounds.insert(bounds.end(), {original.size() - kFooterRecordSize, original.size()});
        }
        for (std::size_t part = 0; part + 1 < bounds.size(); ++part) {
            for (int round = 0; round < 6; ++round) {
                const std::uint64_t at = bounds[part] + random() % (bounds[part + 1] - bounds[part]);
                SCOPED_TRACE(std::string(closed ? "closed" : "not closed") + ", byte " + std::to_string(at));
                auto bytes = original;
                bytes[at] ^= static_cast<std::uint8_t>(1U << (random() % 8));
                WriteFileBytes(path, bytes);
                KelCommon::ScopedLogCapture log;
                auto reader = OpenContainer(path);
                std::vector<bool> expected;
                for (std::size_t i = 0; i < atoms.size(); ++i) {
                    expected.push_back(at < starts[i] || at >= ends[i]);
                }
                EXPECT_EQ(Survivors(*reader, atoms), expected);
                EXPECT_EQ(KEL::VerifyContainer(path).recoverableAtoms,
                          static_cast<std::uint64_t>(std::count(expected.begin(), expected.end(), true)));
                EXPECT_EQ(reader->GetDamageReport().indexUsed, closed && at < ends.back());
                // (In the footer, what is logged depends on the byte hit.)
                if (at < bounds.back() - (closed ? kFooterRecordSize : 0)) {
                    EXPECT_EQ(log.CountContaining("index unusable"), closed && at >= ends.back() ? 1U : 0U);
                }
            }
        }
    }
}

// After a crash, a file system may show blocks of the file that lived at the
// same path before. Records of that old file, even at the very offsets where
// the new file's records were, are refused.
TEST_F(ContainerDamage, RecordsOfAnEarlierFileAtTheSamePlaceAreRefused) {
    const auto old = SmallAtoms(1, 6, 4);
    auto current = SmallAtoms(1, 6, 4);
    for (auto& atom : current) {
        atom->SetTimeStamp(atom->GetTimeStamp() + 1);
    }
    const auto oldEnds = WriteContainer(path, old, false);
    const auto oldBytes = ReadFileBytes(path);
    const auto ends = WriteContainer(path, current, false);
    ASSERT_EQ(ends, oldEnds);  // same sizes: the old records fit exactly
    // The old file's records 2 and 3 where the new ones were.
    auto bytes = ReadFileBytes(path);
    std::copy(oldBytes.begin() + static_cast<long>(ends[1]), oldBytes.begin() + static_cast<long>(ends[3]),
              bytes.begin() + static_cast<long>(ends[1]));
    WriteFileBytes(path, bytes);

    auto reader = OpenContainer(path);
    EXPECT_EQ(Survivors(*reader, current), (std::vector<bool>{true, true, false, false, true, true}));
    EXPECT_EQ(reader->GetDamageReport().foreignRecords, 2U);
    EXPECT_EQ(reader->GetFrameNumbers(1), (std::vector<std::uint32_t>{0, 1, 4, 5}));
}

// A description reads a record's header and layer descriptors only: damage
// there shows at once, damage to its blobs once a read has met it.
TEST_F(ContainerDamage, DescriptionsShowDamageTheirReadMeetsOrAReadFoundBefore) {
    const auto ends = WriteContainer(path, SixteenAtoms());
    const auto starts = Starts(ends);
    FlipByte(path, starts[3] + 20);  // record header of atom 3
    FlipByte(path, ends[6] - 40);    // last pixels of atom 6
    KelCommon::ScopedLogCapture log;
    auto reader = OpenContainer(path);
    for (std::uint64_t i = 0; i < 16; ++i) {
        EXPECT_EQ(reader->DescribeAtomAt(i).damaged, i == 3) << i;
    }
    EXPECT_EQ(reader->DescribeAtomAt(3).reason, "damaged record header");
    EXPECT_EQ(reader->DescribeAtomAt(6).layers.size(), reader->DescribeAtomAt(7).layers.size());
    EXPECT_EQ(reader->GetAtomAt(6), nullptr);
    const auto after = reader->DescribeAtomAt(6);
    EXPECT_TRUE(after.damaged);
    EXPECT_EQ(after.reason, "checksum mismatch");
    EXPECT_EQ(after.storedBytes, ends[6] - starts[6]);
}

TEST_F(ContainerDamage, VerifierLocatesADamagedRecordAndCountsTheRestRecoverable) {
    const auto ends = WriteContainer(path, SmallAtoms(1, 4));
    FlipByte(path, ends[1] + 90);
    const auto v = KEL::VerifyContainer(path);
    EXPECT_FALSE(v.IsIntact());
    EXPECT_TRUE(v.indexValid);
    EXPECT_EQ(v.damagedRecords, 1U);
    EXPECT_EQ(v.damagedBytes, ends[2] - ends[1]);
    EXPECT_EQ(v.recoverableAtoms, 3U);
    ASSERT_EQ(v.problems.size(), 1U);
    EXPECT_EQ(v.problems[0].offset, ends[1]);

    // A checkpoint slot the writer never used is damage too.
    WriteContainer(path, SmallAtoms(1, 4));
    FlipByte(path, KEL::container::kCheckpointSlotOffsets[1] + 3);
    const auto slot = KEL::VerifyContainer(path);
    EXPECT_FALSE(slot.IsIntact());
    EXPECT_EQ(slot.recoverableAtoms, 4U);
    ASSERT_EQ(slot.problems.size(), 1U);
    EXPECT_EQ(slot.problems[0].offset, KEL::container::kCheckpointSlotOffsets[1]);
    EXPECT_EQ(slot.problems[0].what, "checkpoint slot 1 is damaged");
}

// An unclosed file followed by a hole of 8 TiB (a sparse file, as
// `truncate -s +8T` or a crash of some file systems leaves it): opening it
// skips the hole without reading it, and reading the last atom, whose
// distance to the end of the file spans the whole hole, allocates that
// record, not the hole.
TEST_F(ContainerDamage, AHugeHoleAfterTheLastAtomIsSkippedAndNeverAllocated) {
    const auto atoms = SmallAtoms(0, 3, 16);
    const auto ends = WriteContainer(path, atoms, false);
    constexpr std::uint64_t kHole = std::uint64_t{8} << 40;
    if (::truncate(path.c_str(), static_cast<off_t>(ends.back() + kHole)) != 0) {
        GTEST_SKIP() << "this file system holds no 8 TiB file";
    }
    auto reader = OpenContainer(path);
    EXPECT_EQ(reader->GetNumAtoms(), 3U);
    EXPECT_EQ(reader->GetDamageReport().truncatedTailBytes, kHole);
    EXPECT_EQ(reader->GetDamageReport().skippedRecords, 0U);
    for (const auto& atom : atoms) {
        ExpectSameAtom(atom, reader->GetFrameAtom(0, atom->GetFrameNr()));
    }
}

// A read that fails (EIO) loses the atom for that fetch only: the record is
// not marked damaged, and the next fetch reads it again.
TEST_F(ContainerDamage, AFailedReadIsRetriedByTheNextFetch) {
    const auto atoms = SmallAtoms(1, 3, 64);
    const auto ends = WriteContainer(path, atoms);
    auto reader = OpenContainer(path);
    gFailReadsAt = static_cast<std::int64_t>(ends[0] + 100);
    EXPECT_FALSE(reader->GetFrameAtom(1, 1));
    EXPECT_NE(reader->GetLastError().find("Input/output error"), std::string::npos) << reader->GetLastError();
    gFailReadsAt = -1;
    ExpectSameAtom(atoms[1], reader->GetFrameAtom(1, 1));
    EXPECT_EQ(reader->GetDamageReport().skippedRecords, 0U);
}

// Damage that readers meet is recorded once per place for the host: a
// damaged atom with its stream and frame, a region without intact records
// with its length; asking again adds nothing.
TEST_F(ContainerDamage, ReadersRecordWhatTheyLostOncePerPlace) {
    (void)KEL::TakeReaderDamage();
    const auto ends = WriteContainer(path, SmallAtoms(1, 4));
    FlipByte(path, ends[1] + 90);
    {
        auto reader = OpenContainer(path);
        EXPECT_FALSE(reader->GetFrameAtom(1, 2));
        EXPECT_FALSE(reader->GetFrameAtom(1, 2));
        auto quiet = OpenContainer(path, KEL::KEL_OK, {.logDamage = false});
        EXPECT_FALSE(quiet->GetFrameAtom(1, 2));
    }
    auto damage = KEL::TakeReaderDamage();
    ASSERT_EQ(damage.size(), 1U);
    EXPECT_EQ(damage[0].path, path);
    EXPECT_TRUE(damage[0].atomKnown);
    EXPECT_EQ(damage[0].streamId, 1U);
    EXPECT_EQ(damage[0].frameNr, 2U);
    EXPECT_EQ(damage[0].offset, ends[1]);
    EXPECT_EQ(damage[0].reason, "checksum mismatch");
    EXPECT_TRUE(KEL::TakeReaderDamage().empty());

    // Without the index, the damaged record header makes a region.
    const auto unclosed = dir.File("unclosed.kel");
    const auto unclosedEnds = WriteContainer(unclosed, SmallAtoms(1, 4), false);
    FlipByte(unclosed, unclosedEnds[1] + 10);
    auto walked = OpenContainer(unclosed);
    EXPECT_EQ(walked->GetNumAtoms(), 3U);
    damage = KEL::TakeReaderDamage();
    ASSERT_EQ(damage.size(), 1U);
    EXPECT_FALSE(damage[0].atomKnown);
    EXPECT_EQ(damage[0].offset, unclosedEnds[1]);
    EXPECT_EQ(damage[0].length, unclosedEnds[2] - unclosedEnds[1]);
}

}  // namespace
