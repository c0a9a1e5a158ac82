// Write failures of the real file system (ContainerFaultTest injects every
// failure into a simulated one).

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <csignal>

#include "container/ContainerFiles.h"

namespace {

using namespace kel_test;
using ContainerWriteFailure = ContainerTest;

TEST_F(ContainerWriteFailure, FileSizeLimitFailsTheWriteAndKeepsEarlierAtoms) {
    const auto atoms = SmallAtoms(1, 12, 32);  // about 4 KiB of pixels each
    // Child exit code: atoms written before the failure, or 100 + a step that
    // went wrong.
    const int written = RunInChild([&]() -> int {
        std::signal(SIGXFSZ, SIG_IGN);
        const rlimit limit{20000, 20000};
        if (setrlimit(RLIMIT_FSIZE, &limit) != 0) {
            return 101;
        }
        KEL::SerializeToKel writer(path.c_str(), true, KEL::CURRENT_VERSION, false);
        for (int ok = 0; ok < 12; ++ok) {
            const auto code = writer.SerializeAtom(atoms[static_cast<std::size_t>(ok)]);
            if (code == KEL::KEL_OK) {
                continue;
            }
            if (code != KEL::KEL_ERR_FILE_TOO_LARGE || FileSize(path) != writer.GetBytesWritten()) {
                return 102;  // another code, or the partial record was not cut off
            }
            // A later atom fails the same way; nothing else changes.
            const bool again = writer.SerializeAtom(atoms.back()) == KEL::KEL_ERR_FILE_TOO_LARGE;
            writer.Close();
            return again ? ok : 104;
        }
        return 105;  // the limit was never reached
    });
    ASSERT_GT(written, 0);
    ASSERT_LT(written, 12);
    auto reader = OpenContainer(path);
    EXPECT_EQ(reader->GetDamageReport().skippedRecords, 0U);
    EXPECT_EQ(reader->GetDamageReport().truncatedTailBytes, 0U);
    std::vector<bool> expected(12, false);
    std::fill_n(expected.begin(), written, true);
    EXPECT_EQ(Survivors(*reader, atoms), expected);
}

// Runs as an unprivileged user: as root, permissions would not apply.
TEST_F(ContainerWriteFailure, UnwritableDirectoryIsReportedAtOpen) {
    const auto sub = dir.File("ro");
    std::filesystem::create_directory(sub);
    std::filesystem::permissions(dir.Path(), std::filesystem::perms::all);
    std::filesystem::permissions(sub, std::filesystem::perms::owner_read | std::filesystem::perms::owner_exec |
                                          std::filesystem::perms::others_read | std::filesystem::perms::others_exec);
    const int result = RunInChild(
        [&] {
            KEL::SerializeToKel writer((sub + "/x.kel").c_str(), true, KEL::CURRENT_VERSION, false);
            if (writer.GetOpenResult() != KEL::KEL_ERR_ACCESS_DENIED || writer.GetLastError().empty()) {
                return 1;
            }
            return writer.SerializeAtom(MakeFrameAtom(1, 0)) == KEL::KEL_ERR_ACCESS_DENIED ? 0 : 2;
        },
        true);
    EXPECT_EQ(result, 0);
    EXPECT_TRUE(std::filesystem::is_empty(sub));
}

}  // namespace
