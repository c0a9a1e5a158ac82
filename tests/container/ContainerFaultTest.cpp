// I/O fault injection: generated write sequences are run once cleanly, then
// again with each of their file operations failing once in every way that
// operation can fail (errors, short writes, a short write followed by an
// error, a write whose cut-back fails too, memory running out right after a
// write or a sync). Each time the serializer must
// report the matching code, refuse atoms after a failed sync, and leave a
// file that holds every acknowledged atom exactly once and no failed one,
// through the index and by walking the records alike, with nothing damaged.
// KEL_FAULT_SEQUENCES sets the number of generated sequences, KEL_HARNESS_SEED
// the first.

#include <KEL/ContainerVerifier.h>
#include <KEL/KELLogger.h>
#include <KEL/SerializeToKel.h>
#include <KelCommon/Logger.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <iostream>

#include "container/ContainerFormat.h"
#include "harness/WriterRun.h"
#include "support/TestSupport.h"

namespace {

using namespace kel_harness;
using Mode = Fault::Mode;

// The operation that closes the container (the companion's file may get the
// same descriptor number afterwards).
std::size_t ContainerClosedAt(const std::vector<Op>& ops) {
    for (std::size_t i = 0; i < ops.size(); ++i) {
        if (ops[i].kind == OpKind::kClose && ops[i].fd == ops.front().result) {
            return i;
        }
    }
    return ops.size();
}

// The ways operation `i` of a clean run can be made to fail.
std::vector<std::vector<Fault>> FaultPlans(const std::vector<Op>& ops, std::size_t i) {
    std::vector<std::vector<Fault>> plans;
    switch (ops[i].kind) {
        case OpKind::kWrite:
            for (const int error : {EIO, ENOSPC, EFBIG}) {
                plans.push_back({{i, Mode::kError, error}});
            }
            plans.push_back({{i, Mode::kShortWrite, 0}});
            plans.push_back({{i, Mode::kThrowAfter, ENOMEM}});
            plans.push_back({{i, Mode::kShortWriteThenError, ENOSPC}});
            // The short write, the failing rest, then the cut-back fails too.
            plans.push_back({{i, Mode::kShortWriteThenError, ENOSPC}, {i + 2, Mode::kError, EIO}});
            break;
        case OpKind::kOpen:
            plans.push_back({{i, Mode::kError, EACCES}});
            plans.push_back({{i, Mode::kError, EIO}});
            break;
        case OpKind::kSync:
            plans.push_back({{i, Mode::kError, EIO}});
            plans.push_back({{i, Mode::kThrowAfter, ENOMEM}});
            break;
        default:
            plans.push_back({{i, Mode::kError, EIO}});
            break;
    }
    return plans;
}

std::string Describe(const std::vector<Op>& ops, const std::vector<Fault>& plan) {
    const Fault& f = plan.front();
    std::string s = std::string(OpKindName(ops[f.op].kind)) + " #" + std::to_string(f.op) +
                    (f.mode == Mode::kError        ? " fails"
                     : f.mode == Mode::kShortWrite ? " is short"
                     : f.mode == Mode::kThrowAfter ? " is done, then memory runs out"
                                                   : " is short, then fails") +
                    (f.error != 0 ? " (" + std::string(std::strerror(f.error)) + ")" : "");
    return plan.size() > 1 ? s + ", and so does the cut-back" : s;
}

TEST(ContainerFaults, EveryFailingFileOperationIsReportedAndLosesNothingAcknowledged) {
    const auto sequences = static_cast<int>(kel_test::EnvNumber("KEL_FAULT_SEQUENCES", 30));
    // Thousands of expected failures: keep them off the terminal (the
    // captured log is checked where it matters).
    const auto logger = KEL::GetKELLoggerInstance().lock();
    const int stderrLevel = logger->GetStderrLevel();
    logger->SetStderrLevel(KelCommon::LOG_OFF);
    std::size_t failedCalls = 0;
    for (int n = 0; n < sequences; ++n) {
        const std::uint64_t seed = kel_test::EnvNumber("KEL_HARNESS_SEED", 0) + static_cast<std::uint64_t>(n);
        SeededEntropy entropy(seed + 7777);
        const auto atoms =
            GenerateAtoms(entropy, {.maxAtoms = 8, .maxLayers = 5, .largeBlobOneIn = 60, .maxLargeBlob = 200000});
        WriterRunOptions options;
        options.syncEachAtom = seed % 2 == 0;
        options.xmlCompanion = seed % 3 == 0;
        options.compression = CompressionFor(seed);
        std::vector<Op> clean;
        {
            kel_test::TempDir dir;
            const auto run = RunWriter(dir.Path().string(), "fault.kel", atoms, options);
            ASSERT_EQ(run.firstFailure, 0U);
            clean = run.ops;
        }
        for (std::size_t i = 0; i < clean.size(); ++i) {
            for (const auto& plan : FaultPlans(clean, i)) {
                SCOPED_TRACE("seed " + std::to_string(seed) + ": " + Describe(clean, plan));
                kel_test::TempDir dir;
                options.faults = plan;
                options.retryFailedAtom = i % 2 == 0;
                KelCommon::ScopedLogCapture log;
                const auto run = RunWriter(dir.Path().string(), "fault.kel", atoms, options);
                ASSERT_GE(run.faultsFired, 1U);
                failedCalls += run.faultsFired;

                const Fault& fault = plan.front();
                if (fault.mode == Mode::kShortWrite) {
                    EXPECT_EQ(run.firstFailure, 0U) << "a short write is continued, not a failure";
                } else {
                    EXPECT_EQ(run.firstFailure, CodeForErrno(fault.error));
                }
                if (clean[fault.op].kind == OpKind::kSync && fault.mode == Mode::kError &&
                    fault.op < ContainerClosedAt(clean) && run.openResult == 0) {
                    // Nothing is accepted after a failed sync, and the log says why, once.
                    for (auto a = static_cast<std::size_t>(run.failedAt); a < atoms.size(); ++a) {
                        EXPECT_EQ(run.acknowledgedAfter[a], 0U) << "atom " << a << " accepted after a failed sync";
                    }
                    EXPECT_NE(run.closeResult, 0U);
                    EXPECT_EQ(log.CountContaining("no further atoms are accepted"), 1U);
                }

                if (run.openResult != 0) {
                    // A failed open leaves no file, or an empty container.
                    if (std::filesystem::exists(run.path)) {
                        KEL::ReadKEL2File reader(run.path.c_str());
                        EXPECT_EQ(reader.Initialize(), 0U);
                        EXPECT_EQ(reader.GetNumAtoms(), 0U);
                    }
                    continue;
                }
                for (const bool useIndex : {true, false}) {
                    for (const auto& problem : CheckContainer(run.path, run.Outcome(atoms), {true, false, useIndex})) {
                        ADD_FAILURE() << (useIndex ? "through the index: " : "walking the records: ") << problem;
                    }
                }
                const auto verification = KEL::VerifyContainer(run.path);
                EXPECT_EQ(verification.damagedRecords, 0U);
                // A file closed without error is complete: index, no junk.
                EXPECT_TRUE(run.closeResult != 0 || verification.IsIntact());
            }
        }
    }
    logger->SetStderrLevel(stderrLevel);
    std::cout << "failed file operations: " << failedCalls << " over " << sequences << " sequences\n";
}

// An atom that another thread changes while the serializer writes it (here
// the write itself changes it) is stored as the serializer first read it:
// the record's header, its payload and the index agree, and it reads back.
TEST(ContainerFaults, AnAtomChangedWhileItIsWrittenIsStoredAsFirstRead) {
    kel_test::TempDir dir;
    const auto atom = kel_test::MakeFrameAtom(3, 7, 8, 8);
    const auto asGiven = KEL::Atom::Copy(atom, 7, false);
    auto io = std::make_shared<SimulatedFileIo>(dir.Path().string());
    io->OnEachOperation([&](const Op& op) {
        if (op.kind == OpKind::kWrite && op.offset >= KEL::container::kFirstRecordOffset) {
            atom->SetTimeStamp(atom->GetTimeStamp() + 1000);
            atom->SetFrameNr(atom->GetFrameNr() + 1);
        }
    });
    const std::string path = dir.File("changed.kel");
    {
        KEL::SerializeToKel writer(path.c_str(), true, KEL::CURRENT_VERSION, false, {.fileIo = io, .compression = {}});
        ASSERT_EQ(writer.SerializeAtom(atom), KEL::KEL_OK);
        ASSERT_EQ(writer.Close(), KEL::KEL_OK);
    }
    KEL::ReadKEL2File reader(path.c_str());
    ASSERT_EQ(reader.Initialize(), KEL::KEL_OK);
    const auto back = reader.GetFrameAtom(3, 7);
    ASSERT_TRUE(back) << "the atom as first read is not in the file";
    std::string why;
    EXPECT_TRUE(kel_test::AtomsEqual(*asGiven, *back, &why)) << why;
}

}  // namespace
