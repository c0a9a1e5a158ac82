// Files that change under a reader: a recording that grows while it is
// followed, a file shortened by another process, and the checkpoints that let
// a reader list a long unclosed recording without walking all of it.

#include <KEL/DataTypeBinary.h>
#include <gtest/gtest.h>

#include "container/ContainerFiles.h"
#include "container/ContainerFormat.h"

namespace {

using namespace kel_test;
using KEL::AtomPtr;
using ContainerFollow = ContainerTest;

// A closed file is copied into `path` one byte more at a time, as a writer
// appends it. At every size, a reader opened then and a reader that has
// followed the file with Refresh since its first record list exactly the
// records that are complete, read each of them back and skip nothing; the
// index counts only once it is whole. Shorter than the file header, the file
// is not a container (no magic yet) or a damaged one.
TEST_F(ContainerFollow, EveryPrefixOfAFileListsExactlyItsCompleteRecords) {
    std::vector<AtomPtr> atoms;
    for (std::uint32_t f = 0; f < 6; ++f) {
        atoms.push_back(MakeFrameAtom(static_cast<std::uint16_t>(f % 2), f / 2, 3 + f, 2));
    }
    const auto source = dir.File("source.kel");
    const auto ends = WriteContainer(source, atoms);
    const auto bytes = ReadFileBytes(source);
    std::unique_ptr<KEL::ReadKEL2File> follower;
    for (std::size_t size = 0; size <= bytes.size(); ++size) {
        SCOPED_TRACE("size " + std::to_string(size));
        WriteFileBytes(path, std::vector<std::uint8_t>(bytes.begin(), bytes.begin() + static_cast<long>(size)));
        KEL::ReadKEL2File fresh(path.c_str(), {true, false});
        const auto code = fresh.Initialize();
        if (size < KEL::container::kFileHeaderSize) {
            EXPECT_EQ(code, size < KEL::container::kMagicSize ? KEL::KEL_ERR_NOT_A_CONTAINER : KEL::KEL_ERR_CORRUPT);
            continue;
        }
        ASSERT_EQ(code, KEL::KEL_OK) << fresh.GetLastError();
        if (size == KEL::container::kFirstRecordOffset) {
            follower = OpenContainer(path, KEL::KEL_OK, {true, false});
        } else if (follower) {
            ASSERT_EQ(follower->Refresh(), KEL::KEL_OK);
        }
        const auto complete = static_cast<std::size_t>(std::upper_bound(ends.begin(), ends.end(), size) - ends.begin());
        std::vector<bool> expected(atoms.size(), false);
        std::fill(expected.begin(), expected.begin() + static_cast<long>(complete), true);
        for (KEL::ReadKEL2File* reader : {&fresh, follower.get()}) {
            if (reader != nullptr) {
                EXPECT_EQ(reader->GetNumAtoms(), complete);
                EXPECT_EQ(Survivors(*reader, atoms), expected);
                EXPECT_EQ(reader->GetDamageReport().skippedRecords, 0U);
                EXPECT_EQ(reader->IsClosed(), size == bytes.size());
            }
        }
        EXPECT_EQ(fresh.GetDamageReport().indexUsed, size == bytes.size());
    }
}

// Reads never fault: a file cut short by another process while a reader
// holds it open gives damaged records, and the atoms read before stay valid.
TEST_F(ContainerFollow, FileShortenedUnderAReaderYieldsDamageNotASignal) {
    const auto atoms = SmallAtoms(1, 4);
    const auto ends = WriteContainer(path, atoms);
    for (const bool readAhead : {false, true}) {
        auto reader = OpenContainer(path, KEL::KEL_OK, {true, false, true, readAhead});
        const auto before = reader->GetFrameAtom(1, 0);
        TruncateFile(path, ends[1]);
        EXPECT_TRUE(reader->GetFrameAtom(1, 1));
        EXPECT_FALSE(reader->GetFrameAtom(1, 2));
        EXPECT_FALSE(reader->GetFrameAtom(1, 3));
        EXPECT_GE(reader->GetDamageReport().skippedRecords, 2U);
        reader.reset();
        ExpectSameAtom(atoms[0], before);
        WriteContainer(path, atoms);
    }
}

// A long recording whose writer died is listed from the last checkpoint, not
// from its first record; damaged checkpoints cost only the time of a walk.
TEST_F(ContainerFollow, UnclosedFileIsListedFromItsLastCheckpoint) {
    std::vector<AtomPtr> atoms;
    for (std::uint32_t f = 0; f < 2600; ++f) {
        auto atom = std::make_shared<KEL::Atom>(static_cast<std::uint16_t>(f % 3), f / 3, f);
        atom->AddDataLayer(std::make_shared<KEL::DataTypeBinary>("b", PatternBuffer(f % 50, f)), true);
        atoms.push_back(atom);
    }
    WriteContainer(path, atoms, false);
    auto reader = OpenContainer(path);
    EXPECT_TRUE(reader->GetDamageReport().checkpointUsed);
    EXPECT_EQ(reader->GetNumAtoms(), atoms.size());
    for (std::size_t i = 0; i < atoms.size(); i += 97) {
        ExpectSameAtom(atoms[i], reader->GetFrameAtom(atoms[i]->GetStreamId(), atoms[i]->GetFrameNr()));
    }
    // Both slots damaged: walked from the start, same atoms.
    FlipByte(path, KEL::container::kCheckpointSlotOffsets[0] + 3);
    FlipByte(path, KEL::container::kCheckpointSlotOffsets[1] + 3);
    auto walked = OpenContainer(path);
    EXPECT_FALSE(walked->GetDamageReport().checkpointUsed);
    EXPECT_EQ(walked->GetNumAtoms(), atoms.size());
    EXPECT_EQ(walked->GetFrameNumbers(2), reader->GetFrameNumbers(2));
}

}  // namespace
