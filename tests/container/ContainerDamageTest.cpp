// Damage to a container costs the damaged bytes only: each test damages a
// file the way disks and crashes do (flipped bits anywhere, records of an
// earlier file left at the same place) and checks exactly which atoms come
// back; the verifier locates the damage.

#include <KEL/ContainerVerifier.h>
#include <gtest/gtest.h>

#include <random>

#include "container/ContainerFiles.h"
#include "container/ContainerFormat.h"

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
}

}  // namespace
