// Crash simulation: generated write sequences are recorded operation by
// operation, and for every prefix of the operations the files a crash at that
// point leaves are rebuilt and opened:
// - a process crash keeps every completed operation: every acknowledged
//   atom must come back identical;
// - a power loss keeps what was synced and any mix of later pages: every atom
//   acknowledged before the last successful sync must come back identical,
//   later ones may be missing, and nothing may come back altered or invented.
// KEL_CRASH_SEQUENCES sets the number of generated sequences, KEL_HARNESS_SEED
// the first.

#include <KEL/ReadKEL2File.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <iostream>
#include <pugixml.hpp>

#include "harness/WriterRun.h"
#include "support/TestSupport.h"

namespace {

using namespace kel_harness;

// Problems with the files `files` left by a crash, given what the writer had
// been told (`expected`).
std::vector<std::string> CheckCrash(const Files& files, const std::string& name,
                                    const std::vector<WrittenAtom>& expected) {
    kel_test::TempDir dir;
    Materialize(files, dir.Path().string());
    if (files.count(name) == 0) {
        for (const auto& w : expected) {
            if (w.fate == Fate::kRequired) {
                return {"the file is gone although " + Describe(*w.model) + " was acknowledged"};
            }
        }
        return {};
    }
    auto problems = CheckContainer(dir.File(name), expected);
    const auto walked = CheckContainer(dir.File(name), expected, {true, false, false});
    problems.insert(problems.end(), walked.begin(), walked.end());
    if (const auto xml = files.find(name + ".xml"); xml != files.end()) {
        pugi::xml_document doc;
        if (!doc.load_buffer(xml->second.data(), xml->second.size()) || !doc.child("kelContainer")) {
            problems.push_back("the XML companion is incomplete");
        }
    }
    return problems;
}

TEST(ContainerCrash, AcknowledgedAtomsSurviveACrashAfterEveryFileOperation) {
    const auto sequences = static_cast<int>(kel_test::EnvNumber("KEL_CRASH_SEQUENCES", 40));
    std::size_t processCrashes = 0;
    std::size_t powerLosses = 0;
    std::size_t acknowledged = 0;
    for (int n = 0; n < sequences; ++n) {
        const std::uint64_t seed = kel_test::EnvNumber("KEL_HARNESS_SEED", 0) + static_cast<std::uint64_t>(n);
        SeededEntropy entropy(seed);
        const auto atoms =
            GenerateAtoms(entropy, {.maxAtoms = 12, .maxLayers = 5, .largeBlobOneIn = 60, .maxLargeBlob = 300000});
        kel_test::TempDir dir;
        WriterRunOptions options;
        options.syncEachAtom = seed % 2 == 1;
        options.xmlCompanion = seed % 3 == 0;
        options.compression = CompressionFor(seed);
        const auto run = RunWriter(dir.Path().string(), "crash.kel", atoms, options);
        ASSERT_EQ(run.firstFailure, 0U) << "seed " << seed;
        acknowledged += atoms.size();

        for (std::size_t k = 0; k <= run.ops.size(); ++k) {
            const std::string where = "seed " + std::to_string(seed) + ", crash after " + std::to_string(k) + " of " +
                                      std::to_string(run.ops.size()) + " operations";
            for (const auto& problem :
                 CheckCrash(AfterProcessCrash(run.ops, k), "crash.kel", run.Expectations(atoms, k, false))) {
                ADD_FAILURE() << where << " (process crash): " << problem;
            }
            ++processCrashes;
            for (int variant = 0; variant < 4; ++variant) {
                SeededEntropy outcome(seed * 1000003 + k * 17 + static_cast<std::uint64_t>(variant));
                for (const auto& problem :
                     CheckCrash(AfterPowerLoss(run.ops, k, outcome), "crash.kel", run.Expectations(atoms, k, true))) {
                    ADD_FAILURE() << where << " (power loss, outcome " << variant << "): " << problem;
                }
                ++powerLosses;
            }
        }
    }
    std::cout << "crash points: " << processCrashes << " process crashes, " << powerLosses << " power losses over "
              << sequences << " sequences of " << acknowledged << " acknowledged atoms\n";
}

// A reader follows a recording while it is written: it refreshes after every
// file operation, and also while a write has landed only in part, its first
// page last (as a record still being written, or pages of a network file
// system arriving out of order, leave it). Damage at the end of a live file
// is looked at again by the next refresh, so the follower ends with exactly
// the atoms that a fresh open of the finished file lists, each readable.
TEST(ContainerCrash, AFollowerRefreshingAtEveryStepEndsWithWhatTheFinishedFileLists) {
    constexpr std::uint64_t kPage = 4096;
    const auto sequences = static_cast<int>(kel_test::EnvNumber("KEL_CRASH_SEQUENCES", 40));
    std::size_t partialWrites = 0;
    for (int n = 0; n < sequences; ++n) {
        const std::uint64_t seed = kel_test::EnvNumber("KEL_HARNESS_SEED", 0) + static_cast<std::uint64_t>(n);
        SCOPED_TRACE("seed " + std::to_string(seed));
        SeededEntropy entropy(seed);
        const auto atoms =
            GenerateAtoms(entropy, {.maxAtoms = 12, .maxLayers = 5, .largeBlobOneIn = 8, .maxLargeBlob = 20000});
        kel_test::TempDir dir;
        WriterRunOptions options;
        options.compression = CompressionFor(seed);
        const auto run = RunWriter(dir.Path().string(), "crash.kel", atoms, options);
        ASSERT_EQ(run.firstFailure, 0U);

        kel_test::TempDir live;
        const std::string path = live.File("crash.kel");
        std::unique_ptr<KEL::ReadKEL2File> follower;
        auto show = [&](const std::vector<std::uint8_t>& bytes) {
            kel_test::WriteFileBytes(path, bytes);
            if (follower) {
                ASSERT_EQ(follower->Refresh(), KEL::KEL_OK);
                return;
            }
            auto reader = std::make_unique<KEL::ReadKEL2File>(path.c_str(), KEL::ReaderOptions{.logDamage = false});
            if (reader->Initialize() == KEL::KEL_OK) {
                follower = std::move(reader);
            }
        };
        std::vector<std::uint8_t> previous;
        for (std::size_t k = 1; k <= run.ops.size(); ++k) {
            const Files files = AfterProcessCrash(run.ops, k);
            const auto now = files.find("crash.kel");
            if (now == files.end() || now->second == previous) {
                continue;
            }
            const Op& op = run.ops[k - 1];
            const std::uint64_t firstPageEnd = std::min(op.offset / kPage * kPage + kPage, op.offset + op.data.size());
            if (op.kind == OpKind::kWrite && !previous.empty() && firstPageEnd < op.offset + op.data.size()) {
                auto partial = now->second;
                for (std::uint64_t b = op.offset; b < firstPageEnd; ++b) {
                    partial[b] = b < previous.size() ? previous[b] : 0;
                }
                show(partial);
                ++partialWrites;
            }
            show(now->second);
            previous = now->second;
        }
        ASSERT_TRUE(follower);
        auto fresh = std::make_unique<KEL::ReadKEL2File>(path.c_str());
        ASSERT_EQ(fresh->Initialize(), KEL::KEL_OK);
        EXPECT_TRUE(follower->IsClosed());
        const auto listed = fresh->ListAtoms();
        const auto followed = follower->ListAtoms();
        ASSERT_EQ(followed.size(), listed.size());
        for (std::size_t i = 0; i < listed.size(); ++i) {
            EXPECT_EQ(followed[i].streamId, listed[i].streamId);
            EXPECT_EQ(followed[i].frameNr, listed[i].frameNr);
            const auto expected = fresh->GetAtomAt(i);
            const auto actual = follower->GetAtomAt(i);
            ASSERT_TRUE(expected && actual) << "atom " << i;
            std::string why;
            EXPECT_TRUE(kel_test::AtomsEqual(*expected, *actual, &why)) << why;
        }
    }
    std::cout << "partial writes followed: " << partialWrites << "\n";
    EXPECT_GT(partialWrites, 0U);
}

}  // namespace
