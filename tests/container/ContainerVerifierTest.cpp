#include <KEL/ContainerVerifier.h>
#include <gtest/gtest.h>

#include "container/ContainerFiles.h"
#include "container/ContainerFormat.h"

namespace {

using namespace kel_test;
using ContainerVerifier = ContainerTest;

TEST_F(ContainerVerifier, ClosedFileIsIntact) {
    std::vector<KEL::AtomPtr> atoms = SmallAtoms(1, 3);
    atoms.push_back(MakeFrameAtom(2, 0, 2, 2));
    WriteContainer(path, atoms);

    const auto v = KEL::VerifyContainer(path);
    EXPECT_TRUE(v.IsIntact());
    EXPECT_EQ(v.openResult, KEL::KEL_OK);
    EXPECT_TRUE(v.indexPresent);
    EXPECT_TRUE(v.indexValid);
    EXPECT_EQ(v.atomRecords, 4U);
    EXPECT_EQ(v.recoverableAtoms, 4U);
    EXPECT_EQ(v.streams, 2U);
    EXPECT_EQ(v.formatVersion, 2000);
    EXPECT_EQ(v.fileSize, FileSize(path));
    EXPECT_TRUE(v.problems.empty());
}

TEST_F(ContainerVerifier, DamagedRecordIsLocatedAndTheRestIsRecoverable) {
    const auto ends = WriteContainer(path, SmallAtoms(1, 4));
    FlipByte(path, ends[1] + 90);

    const auto v = KEL::VerifyContainer(path);
    EXPECT_FALSE(v.IsIntact());
    EXPECT_EQ(v.openResult, KEL::KEL_OK);
    EXPECT_TRUE(v.indexValid);
    EXPECT_EQ(v.damagedRecords, 1U);
    EXPECT_EQ(v.damagedBytes, ends[2] - ends[1]);
    EXPECT_EQ(v.recoverableAtoms, 3U);
    ASSERT_EQ(v.problems.size(), 1U);
    EXPECT_EQ(v.problems[0].offset, ends[1]);
}

TEST_F(ContainerVerifier, UnclosedFileOrDamagedIndexLosesNothingButIsNotIntact) {
    WriteContainer(path, SmallAtoms(1, 2), false);
    auto v = KEL::VerifyContainer(path);
    EXPECT_FALSE(v.IsIntact());
    EXPECT_EQ(v.openResult, KEL::KEL_OK);
    EXPECT_FALSE(v.indexPresent);
    EXPECT_EQ(v.damagedRecords, 0U);
    EXPECT_EQ(v.recoverableAtoms, 2U);

    const auto ends = WriteContainer(path, SmallAtoms(1, 2));
    FlipByte(path, ends.back() + 50);
    v = KEL::VerifyContainer(path);
    EXPECT_TRUE(v.indexPresent);
    EXPECT_FALSE(v.indexValid);
    EXPECT_EQ(v.recoverableAtoms, 2U);
    EXPECT_GE(v.damagedRecords, 1U);
}

TEST_F(ContainerVerifier, AgreesWithTheReaderOnFilesWithoutAnyIntactRecord) {
    EXPECT_EQ(KEL::VerifyContainer(dir.File("none.kel")).openResult, KEL::KEL_ERR_NOT_FOUND);
    WriteContainer(path, SmallAtoms(1, 1), false);
    FlipByte(path, KEL::container::kFirstRecordOffset + 70);
    const auto v = KEL::VerifyContainer(path);
    EXPECT_EQ(v.openResult, KEL::KEL_OK);
    EXPECT_EQ(v.recoverableAtoms, 0U);
    EXPECT_GE(v.damagedRecords, 1U);
    // The reader lists the record from its intact header and refuses its payload.
    EXPECT_FALSE(OpenContainer(path, v.openResult)->GetFrameAtom(1, 0));
}

}  // namespace
