#include "harness/WriterRun.h"

#include <KEL/SerializeToKel.h>

#include <cerrno>
#include <filesystem>

namespace kel_harness {

std::vector<WrittenAtom> WriterRun::Expectations(const std::vector<ModelAtom>& atoms, std::size_t opsDone,
                                                 bool durableOnly) const {
    const long synced = LastSuccessfulSync(ops, opsDone);
    std::vector<WrittenAtom> out;
    for (std::size_t i = 0; i < atoms.size(); ++i) {
        const std::size_t ack = acknowledgedAfter[i];
        const bool required = ack != 0 && ack <= opsDone && (!durableOnly || synced >= static_cast<long>(ack) - 1);
        out.push_back({&atoms[i], required ? Fate::kRequired : Fate::kOptional});
    }
    return out;
}

std::vector<WrittenAtom> WriterRun::Outcome(const std::vector<ModelAtom>& atoms) const {
    std::vector<WrittenAtom> out;
    for (std::size_t i = 0; i < atoms.size(); ++i) {
        out.push_back({&atoms[i], acknowledgedAfter[i] != 0 ? Fate::kRequired : Fate::kAbsent});
    }
    return out;
}

WriterRun RunWriter(const std::string& root, const std::string& name, const std::vector<ModelAtom>& atoms,
                    const WriterRunOptions& options) {
    WriterRun run;
    run.path = (std::filesystem::path(root) / name).string();
    auto io = std::make_shared<SimulatedFileIo>(root, options.faults);
    {
        long step = -1;
        auto note = [&run, &step](KEL::KelErrorCode code) {
            if (run.firstFailure == 0 && code != 0) {
                run.firstFailure = code;
                run.failedAt = step;
            }
            return code;
        };
        KEL::SerializeToKel writer((run.path + (options.xmlCompanion ? "+xml" : "")).c_str(), true,
                                   KEL::CURRENT_VERSION, options.syncEachAtom,
                                   {.fileIo = io, .compression = options.compression});
        run.openResult = note(writer.GetOpenResult());
        for (const auto& model : atoms) {
            ++step;
            const auto atom = BuildAtom(model);
            KEL::KelErrorCode code = note(writer.SerializeAtom(atom));
            if (code != KEL::KEL_OK && options.retryFailedAtom && run.openResult == KEL::KEL_OK) {
                code = writer.SerializeAtom(atom);
            }
            run.results.push_back(code);
            run.acknowledgedAfter.push_back(code == KEL::KEL_OK ? io->OpCount() : 0);
        }
        ++step;
        run.closeResult = note(writer.Close());
    }
    run.ops = io->Ops();
    run.faultsFired = io->FaultsFired();
    return run;
}

KEL::KelErrorCode CodeForErrno(int error) {
    switch (error) {
        case ENOSPC:
        case EDQUOT:
            return KEL::KEL_ERR_DISK_FULL;
        case EFBIG:
            return KEL::KEL_ERR_FILE_TOO_LARGE;
        case EACCES:
        case EPERM:
            return KEL::KEL_ERR_ACCESS_DENIED;
        default:
            return KEL::KEL_ERR_IO;
    }
}

}  // namespace kel_harness
