// Where the verifier locates damage, and files without any intact record (the
// damage tests compare what it counts as recoverable with what a reader
// returns, the fault tests check that files closed without error are intact,
// and `kel verify` shows its verdicts on intact, unclosed and cut files).

#include <KEL/ContainerVerifier.h>
#include <gtest/gtest.h>

#include "container/ContainerFiles.h"
#include "container/ContainerFormat.h"

namespace {

using namespace kel_test;
using ContainerVerifier = ContainerTest;

TEST_F(ContainerVerifier, DamagedRecordIsLocatedAndTheRestIsRecoverable) {
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
