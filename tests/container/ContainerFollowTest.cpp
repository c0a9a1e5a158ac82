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

// A growing file is copied into `path` byte range by byte range, as a writer
// appends it; after every step Refresh must list exactly the records that
// are complete, and each of them must read back.
TEST_F(ContainerFollow, RefreshListsEachRecordOnceItIsComplete) {
    std::vector<AtomPtr> atoms;
    for (std::uint32_t f = 0; f < 6; ++f) {
        atoms.push_back(MakeFrameAtom(static_cast<std::uint16_t>(f % 2), f / 2, 3 + f, 2));
    }
    const auto source = dir.File("source.kel");
    const auto ends = WriteContainer(source, atoms, false);
    const auto bytes = ReadFileBytes(source);

    WriteFileBytes(path, std::vector<std::uint8_t>(bytes.begin(), bytes.begin() + KEL::container::kFirstRecordOffset));
    auto reader = OpenContainer(path);
    for (std::size_t size = KEL::container::kFirstRecordOffset + 1; size <= bytes.size(); size += 13) {
        SCOPED_TRACE("size " + std::to_string(size));
        WriteFileBytes(path, std::vector<std::uint8_t>(bytes.begin(), bytes.begin() + static_cast<long>(size)));
        ASSERT_EQ(reader->Refresh(), KEL::KEL_OK);
        const auto complete = static_cast<std::size_t>(std::upper_bound(ends.begin(), ends.end(), size) - ends.begin());
        ASSERT_EQ(reader->GetNumAtoms(), complete);
        for (std::size_t i = 0; i < complete; ++i) {
            ExpectSameAtom(atoms[i], reader->GetFrameAtom(atoms[i]->GetStreamId(), atoms[i]->GetFrameNr()));
        }
        EXPECT_EQ(reader->GetDamageReport().skippedRecords, 0U);
    }
    EXPECT_FALSE(reader->IsClosed());
}

TEST_F(ContainerFollow, RefreshFollowsALiveWriterUntilItCloses) {
    KEL::SerializeToKel writer(path.c_str(), true, KEL::CURRENT_VERSION, false);
    auto reader = OpenContainer(path);
    EXPECT_EQ(reader->GetNumAtoms(), 0U);
    for (std::uint32_t f = 0; f < 5; ++f) {
        const auto atom = MakeFrameAtom(4, f, 2, 2);
        ASSERT_EQ(writer.SerializeAtom(atom), KEL::KEL_OK);
        ASSERT_EQ(reader->Refresh(), KEL::KEL_OK);
        EXPECT_EQ(reader->GetNumFrames(4), f + 1);
        ExpectSameAtom(atom, reader->GetFrameAtom(4, f));
    }
    ASSERT_EQ(writer.Close(), KEL::KEL_OK);
    ASSERT_EQ(reader->Refresh(), KEL::KEL_OK);
    EXPECT_TRUE(reader->IsClosed());
    EXPECT_EQ(reader->GetNumFrames(4), 5U);
}

// Reads never fault: a file cut short by another process while a reader
// holds it open gives damaged records, and the atoms read before stay valid.
TEST_F(ContainerFollow, FileShortenedUnderAReaderYieldsDamageNotASignal) {
    const auto atoms = SmallAtoms(1, 4);
    const auto ends = WriteContainer(path, atoms);
    for (const bool readAhead : {false, true}) {
        auto reader =
            std::make_unique<KEL::ReadKEL2File>(path.c_str(), KEL::ReaderOptions{true, false, true, readAhead});
        ASSERT_EQ(reader->Initialize(), KEL::KEL_OK);
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
