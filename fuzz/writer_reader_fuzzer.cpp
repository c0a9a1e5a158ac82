// libFuzzer target that writes and reads back: the input chooses a sequence
// of atoms (layer kinds, values and sizes), whether each atom is synced and
// whether an XML companion is written, and optionally a crash after some file
// operation, as a process crash or as a power loss with the torn pages the
// input picks. The files the crash leaves are opened; every atom that was
// acknowledged (and, after a power loss, synced) must come back identical,
// and nothing may come back that was not written. Any difference traps.

#include <KEL/KELLogger.h>
#include <fuzzer/FuzzedDataProvider.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "harness/ContainerOracle.h"
#include "harness/WriterRun.h"

namespace {

using namespace kel_harness;

class FuzzerEntropy final : public Entropy {
public:
    explicit FuzzerEntropy(FuzzedDataProvider& data) : data_(data) {}
    std::uint64_t Below(std::uint64_t bound) override { return data_.ConsumeIntegralInRange<std::uint64_t>(0, bound); }

private:
    FuzzedDataProvider& data_;
};

const std::filesystem::path& Scratch() {
    static const std::filesystem::path dir =
        std::filesystem::temp_directory_path() / ("kel-writer-fuzz-" + std::to_string(getpid()));
    return dir;
}

void Fresh(const std::filesystem::path& dir) {
    std::filesystem::remove_all(dir);
    std::filesystem::create_directories(dir);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    KEL::SetKELLoggerInstance(nullptr);  // keep the output to findings
    std::atexit([] { std::filesystem::remove_all(Scratch()); });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    FuzzedDataProvider data(bytes, size);
    FuzzerEntropy entropy(data);
    WriterRunOptions options;
    options.syncEachAtom = data.ConsumeBool();
    options.xmlCompanion = data.ConsumeBool();
    if (data.ConsumeBool()) {
        options.compression.codec = KEL::CompressionCodec::kZstd;
    }
    const auto crash = data.ConsumeIntegralInRange<int>(0, 2);  // none, process crash, power loss
    const auto crashPoint = data.ConsumeIntegral<std::uint16_t>();
    const auto atoms = GenerateAtoms(entropy, {.maxAtoms = 10, .maxLayers = 6, .largeBlobOneIn = 0, .maxBlob = 70000});

    const auto written = Scratch() / "written";
    Fresh(written);
    const auto run = RunWriter(written.string(), "fuzz.kel", atoms, options);
    if (run.firstFailure != 0) {
        std::fprintf(stderr, "writing failed with code %u\n", run.firstFailure);
        __builtin_trap();
    }

    std::string path = run.path;
    std::vector<WrittenAtom> expected;
    if (crash == 0) {
        expected = run.Outcome(atoms);
    } else {
        const std::size_t k = crashPoint % (run.ops.size() + 1);
        const auto files = crash == 1 ? AfterProcessCrash(run.ops, k) : AfterPowerLoss(run.ops, k, entropy);
        const auto crashed = Scratch() / "crashed";
        Fresh(crashed);
        Materialize(files, crashed.string());
        path = (crashed / "fuzz.kel").string();
        expected = run.Expectations(atoms, k, crash == 2);
        if (files.count("fuzz.kel") == 0) {
            for (const auto& w : expected) {
                if (w.fate == Fate::kRequired) {
                    std::fprintf(stderr, "the file is gone although %s was acknowledged\n", Describe(*w.model).c_str());
                    __builtin_trap();
                }
            }
            return 0;
        }
    }
    for (const bool useIndex : {true, false}) {
        const auto problems = CheckContainer(path, expected, {true, false, useIndex});
        if (!problems.empty()) {
            for (const auto& p : problems) {
                std::fprintf(stderr, "%s: %s\n", useIndex ? "index" : "walk", p.c_str());
            }
            __builtin_trap();
        }
    }
    return 0;
}
