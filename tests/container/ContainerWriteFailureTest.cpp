#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

#include "container/ContainerFiles.h"

namespace {

using namespace kel_test;
using KEL::AtomPtr;
using ContainerWriteFailure = ContainerTest;

TEST_F(ContainerWriteFailure, FileSizeLimitFailsTheWriteAndKeepsEarlierAtoms) {
    std::vector<AtomPtr> atoms;
    for (std::uint32_t f = 0; f < 12; ++f) {
        atoms.push_back(MakeFrameAtom(1, f, 32, 32));  // about 4 KiB of pixels each
    }
    constexpr rlim_t kLimit = 20000;

    // Child exit code: atoms written before the failure, or 100 + a step that
    // went wrong.
    const int written = RunInChild([&]() -> int {
        std::signal(SIGXFSZ, SIG_IGN);
        const rlimit limit{kLimit, kLimit};
        if (setrlimit(RLIMIT_FSIZE, &limit) != 0) {
            return 101;
        }
        KEL::SerializeToKel writer(path.c_str(), true, KEL::CURRENT_VERSION, false);
        int ok = 0;
        for (const auto& atom : atoms) {
            const auto code = writer.SerializeAtom(atom);
            if (code == KEL::KEL_OK) {
                ++ok;
                continue;
            }
            if (code != KEL::KEL_ERR_FILE_TOO_LARGE) {
                return 102;
            }
            if (FileSize(path) != writer.GetBytesWritten()) {
                return 103;  // the partial record was not cut off
            }
            // A later atom fails the same way; nothing else changes.
            if (writer.SerializeAtom(atoms.back()) != KEL::KEL_ERR_FILE_TOO_LARGE) {
                return 104;
            }
            writer.Close();
            return ok;
        }
        return 105;  // the limit was never reached
    });
    ASSERT_GT(written, 0);
    ASSERT_LT(written, 12);

    auto reader = OpenContainer(path);
    EXPECT_EQ(reader->GetNumAtoms(), static_cast<std::uint64_t>(written));
    EXPECT_EQ(reader->GetDamageReport().skippedRecords, 0U);
    EXPECT_EQ(reader->GetDamageReport().truncatedTailBytes, 0U);
    for (int i = 0; i < written; ++i) {
        ExpectSameAtom(atoms[static_cast<std::size_t>(i)], reader->GetFrameAtom(1, static_cast<std::uint32_t>(i)));
    }
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
