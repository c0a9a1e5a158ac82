// Damage to a container costs the damaged bytes only: each test damages a
// file the way disks, crashes and tools do (zeroed ranges, flipped bits,
// shortened files, files glued together, records of an earlier file left at
// the same place) and checks exactly which atoms come back.

#include <KEL/ContainerVerifier.h>
#include <gtest/gtest.h>

#include <random>

#include "container/ContainerFiles.h"
#include "container/ContainerFormat.h"

namespace {

using namespace kel_test;
using KEL::AtomPtr;
using ContainerDamage = ContainerTest;

// Which of `atoms` the reader returns identical (true) or not at all
// (false). An atom returned different from what was written fails the test.
std::vector<bool> Survivors(KEL::ReadKEL2File& reader, const std::vector<AtomPtr>& atoms) {
    std::vector<bool> back;
    for (const auto& atom : atoms) {
        const auto read = reader.GetFrameAtom(atom->GetStreamId(), atom->GetFrameNr());
        std::string why;
        EXPECT_TRUE(!read || AtomsEqual(*atom, *read, &why)) << "an altered atom came back: " << why;
        back.push_back(read != nullptr);
    }
    return back;
}

// Every atom the reader returns is exactly one that was written.
void ExpectOnlyOriginals(KEL::ReadKEL2File& reader, const std::vector<AtomPtr>& written) {
    for (const auto& atom : ReadAll(reader)) {
        if (!atom) {
            continue;
        }
        const auto original = std::find_if(written.begin(), written.end(), [&](const AtomPtr& w) {
            return w->GetStreamId() == atom->GetStreamId() && w->GetFrameNr() == atom->GetFrameNr();
        });
        ASSERT_NE(original, written.end()) << "stream " << atom->GetStreamId() << " frame " << atom->GetFrameNr();
        ExpectSameAtom(*original, atom);
    }
}

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

TEST_F(ContainerDamage, ZeroedFileStartLosesOnlyTheAtomsItHeld) {
    const auto atoms = SixteenAtoms();
    for (const bool closed : {true, false}) {
        SCOPED_TRACE(closed ? "closed" : "not closed");
        const auto starts = Starts(WriteContainer(path, atoms, closed));
        const auto id = OpenContainer(path)->GetFileId();
        ZeroRange(path, 0, 4096);

        auto reader = OpenContainer(path);
        EXPECT_TRUE(reader->GetDamageReport().headerDamaged);
        EXPECT_EQ(reader->GetDamageReport().indexUsed, closed);
        EXPECT_EQ(reader->GetFileId(), id);
        std::vector<bool> expected;
        for (const auto start : starts) {
            expected.push_back(start >= 4096);
        }
        EXPECT_EQ(Survivors(*reader, atoms), expected);
        EXPECT_GT(std::count(expected.begin(), expected.end(), true), 10);

        const auto v = KEL::VerifyContainer(path);
        EXPECT_TRUE(v.headerDamaged);
        EXPECT_FALSE(v.IsIntact());
        EXPECT_EQ(v.recoverableAtoms, static_cast<std::uint64_t>(std::count(expected.begin(), expected.end(), true)));
    }
}

TEST_F(ContainerDamage, FlippedBitInARecordLosesThatAtomOnly) {
    const auto atoms = SixteenAtoms();
    for (const bool closed : {true, false}) {
        const auto ends = WriteContainer(path, atoms, closed);
        const auto starts = Starts(ends);
        const auto original = ReadFileBytes(path);
        // Every record, hit in its header and in its payload.
        for (std::size_t i = 0; i < atoms.size(); ++i) {
            for (const std::uint64_t at : {starts[i] + 9, starts[i] + 44, ends[i] - 3}) {
                SCOPED_TRACE(std::string(closed ? "closed" : "not closed") + ", atom " + std::to_string(i) + ", byte " +
                             std::to_string(at));
                WriteFileBytes(path, original);
                FlipByte(path, at);
                KEL::ReadKEL2File reader(path.c_str(), {true, false});
                ASSERT_EQ(reader.Initialize(), KEL::KEL_OK);
                std::vector<bool> expected(atoms.size(), true);
                expected[i] = false;
                EXPECT_EQ(Survivors(reader, atoms), expected);
                EXPECT_GE(reader.GetDamageReport().skippedRecords, 1U);
            }
        }
    }
}

TEST_F(ContainerDamage, ShorteningAtEveryOffsetKeepsEveryCompleteRecord) {
    std::vector<AtomPtr> atoms = SmallAtoms(1, 2);
    atoms.push_back(MakeFrameAtom(2, 0, 2, 2));
    atoms.push_back(MakeFrameAtom(1, 2, 2, 2));
    const auto ends = WriteContainer(path, atoms);
    const auto bytes = ReadFileBytes(path);
    const auto cut = dir.File("cut.kel");

    for (std::size_t size = 0; size <= bytes.size(); ++size) {
        SCOPED_TRACE("size " + std::to_string(size));
        WriteFileBytes(cut, std::vector<std::uint8_t>(bytes.begin(), bytes.begin() + static_cast<long>(size)));
        KEL::ReadKEL2File reader(cut.c_str(), {true, false});
        const auto code = reader.Initialize();
        if (size < KEL::container::kFileHeaderSize) {
            EXPECT_EQ(code, size < KEL::container::kMagicSize ? KEL::KEL_ERR_NOT_A_CONTAINER : KEL::KEL_ERR_CORRUPT);
            continue;
        }
        ASSERT_EQ(code, KEL::KEL_OK) << reader.GetLastError();
        const auto complete = static_cast<std::size_t>(std::upper_bound(ends.begin(), ends.end(), size) - ends.begin());
        std::vector<bool> expected(atoms.size(), false);
        std::fill(expected.begin(), expected.begin() + static_cast<long>(complete), true);
        EXPECT_EQ(Survivors(reader, atoms), expected);
        EXPECT_EQ(reader.GetNumAtoms(), complete);
        EXPECT_EQ(reader.GetDamageReport().skippedRecords, 0U);
        EXPECT_EQ(reader.GetDamageReport().indexUsed, size == bytes.size());
    }
}

TEST_F(ContainerDamage, SecondFileGluedOnIsNotTakenForTheFirstsRecords) {
    const auto first = SmallAtoms(1, 3);
    const auto second = std::vector<AtomPtr>{MakeFrameAtom(1, 3, 2, 2), MakeFrameAtom(5, 0, 2, 2)};
    const auto other = dir.File("other.kel");
    WriteContainer(path, first, false);
    WriteContainer(other, second);
    auto glued = ReadFileBytes(path);
    const auto tail = ReadFileBytes(other);
    glued.insert(glued.end(), tail.begin(), tail.end());
    WriteFileBytes(path, glued);

    auto reader = OpenContainer(path);
    EXPECT_EQ(Survivors(*reader, first), std::vector<bool>(3, true));
    EXPECT_EQ(Survivors(*reader, second), std::vector<bool>(2, false));
    EXPECT_EQ(reader->GetNumAtoms(), 3U);
    EXPECT_EQ(reader->GetDamageReport().skippedBytes, tail.size());
}

// After a crash, a file system may show blocks of the file that lived at the
// same path before. Records of that old file, even at the very offsets where
// the new file's records were, are refused.
TEST_F(ContainerDamage, RecordsOfAnEarlierFileAtTheSamePlaceAreRefused) {
    std::vector<AtomPtr> old;
    std::vector<AtomPtr> current;
    for (std::uint32_t f = 0; f < 6; ++f) {
        old.push_back(MakeFrameAtom(1, f, 4, 4));
        current.push_back(MakeFrameAtom(1, f, 4, 4));
        current.back()->SetTimeStamp(old.back()->GetTimeStamp() + 1);
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

TEST_F(ContainerDamage, DamagedIndexFallsBackToWalkingTheRecords) {
    const auto atoms = SmallAtoms(3, 5);
    const auto ends = WriteContainer(path, atoms);
    FlipByte(path, ends.back() + KEL::container::kRecordHeaderSize + 12);

    KelCommon::ScopedLogCapture log;
    auto reader = OpenContainer(path);
    EXPECT_TRUE(reader->GetDamageReport().recovered);
    EXPECT_EQ(Survivors(*reader, atoms), std::vector<bool>(5, true));
    EXPECT_EQ(CountAtLevel(log, 3, "index unusable"), 1U);
}

TEST_F(ContainerDamage, RandomBitFlipsNeverYieldWrongAtoms) {
    std::vector<AtomPtr> atoms = SmallAtoms(1, 3);
    atoms.push_back(MakeFirstAtom(2, 3, 4, 4));
    atoms.push_back(MakeFrameAtom(2, 1, 3, 3));
    WriteContainer(path, atoms);
    const auto original = ReadFileBytes(path);
    const auto damaged = dir.File("damaged.kel");
    std::mt19937 rng(12345);

    for (int round = 0; round < 400; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        auto bytes = original;
        // Half the rounds also drop the index, so both paths are exercised.
        if (round % 2 == 1) {
            bytes.resize(bytes.size() - (rng() % 200));
        }
        const int flips = 1 + static_cast<int>(rng() % 8);
        for (int i = 0; i < flips; ++i) {
            bytes[rng() % bytes.size()] ^= static_cast<std::uint8_t>(1U << (rng() % 8));
        }
        WriteFileBytes(damaged, bytes);
        KEL::ReadKEL2File reader(damaged.c_str(), {true, false});
        if (reader.Initialize() != KEL::KEL_OK) {
            EXPECT_FALSE(reader.GetLastError().empty());
            continue;
        }
        ExpectOnlyOriginals(reader, atoms);
    }
}

}  // namespace
