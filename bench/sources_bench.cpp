// Cost of the sequential multi-file source: initialising it over a directory
// of many small recordings, and pushing one frame as the number of files
// grows (the frame table makes a push independent of the file count).

#include <KEL/DataTypeStreamInfo.h>
#include <KEL/DataTypeTextureRGBA.h>
#include <KEL/SerializeToKel.h>
#include <KelCommon/SharedBuffer.h>
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "optimization/DataOptimizer.h"
#include "sources/SourceKEL2MultiFileAppend.h"

namespace {

constexpr std::uint32_t kFramesPerFile = 4;

std::shared_ptr<KEL::Atom> MakeAtom(std::uint16_t stream, std::uint32_t frame) {
    auto atom = std::make_shared<KEL::Atom>(stream, frame, 1'000'000LL + frame * 33'333LL);
    std::vector<std::uint8_t> pixels(8 * 8 * 4, static_cast<std::uint8_t>(frame));
    atom->AddDataLayer(
        std::make_shared<KEL::DataTypeTextureRGBA>(8, 8, KelCommon::SharedBuffer::FromVector(std::move(pixels))), true);
    atom->AddDataLayer(std::make_shared<KEL::DataTypeStreamInfo>(kFramesPerFile, 30.0, "bench"), true);
    return atom;
}

// Directories of `count` recordings (two streams, kFramesPerFile frames
// each), written once per count and removed at exit.
class Recordings {
public:
    ~Recordings() {
        for (const auto& [count, dir] : dirs_) {
            std::error_code ec;
            std::filesystem::remove_all(dir, ec);
        }
    }

    const std::string& Directory(int count) {
        auto it = dirs_.find(count);
        if (it != dirs_.end()) {
            return it->second;
        }
        std::string templ = (std::filesystem::temp_directory_path() / "kel-sources-bench-XXXXXX").string();
        if (mkdtemp(templ.data()) == nullptr) {
            throw std::runtime_error("mkdtemp failed");
        }
        for (int i = 0; i < count; ++i) {
            char name[32];
            std::snprintf(name, sizeof(name), "/take%05d.kel", i);
            KEL::SerializeToKel serializer((templ + name).c_str(), true, KEL::CURRENT_VERSION, false);
            for (std::uint32_t frame = 0; frame < kFramesPerFile; ++frame) {
                for (std::uint16_t stream = 1; stream <= 2; ++stream) {
                    auto atom = MakeAtom(stream, frame);
                    if (frame != 0) {
                        Kel2File::DataOptimizer::OptimizeAtomData(atom);
                    }
                    if (serializer.SerializeAtom(atom) != 0) {
                        throw std::runtime_error("cannot write " + templ + name);
                    }
                }
            }
        }
        return dirs_.emplace(count, templ).first->second;
    }

private:
    std::map<int, std::string> dirs_;
};

Recordings& TheRecordings() {
    static Recordings recordings;
    return recordings;
}

std::unique_ptr<Kel2File::SourceKEL2MultiFileAppend> MakeSource(const std::string& directory) {
    auto source = std::make_unique<Kel2File::SourceKEL2MultiFileAppend>();
    source->onInitializeParams(nullptr);
    std::string error;
    if (!source->FindParam("KEL files dir")->SetValueFromString(directory, &error)) {
        throw std::runtime_error(error);
    }
    return source;
}

void BM_SequentialSourceInitialize(benchmark::State& state) {
    const std::string& directory = TheRecordings().Directory(static_cast<int>(state.range(0)));
    auto source = MakeSource(directory);
    for (auto _ : state) {
        if (source->onInitialize(nullptr) != 0) {
            state.SkipWithError(source->GetLastErrorMessage().c_str());
            break;
        }
        state.PauseTiming();
        source->onDeInitialize();
        state.ResumeTiming();
    }
    state.counters["files"] = static_cast<double>(state.range(0));
}
BENCHMARK(BM_SequentialSourceInitialize)->Arg(10)->Arg(100)->Arg(1000)->Unit(benchmark::kMillisecond);

void BM_SequentialSourcePushFrame(benchmark::State& state) {
    const std::string& directory = TheRecordings().Directory(static_cast<int>(state.range(0)));
    auto source = MakeSource(directory);
    if (source->onInitialize(nullptr) != 0) {
        state.SkipWithError(source->GetLastErrorMessage().c_str());
        return;
    }
    const std::uint32_t numFrames = source->GetStreamInfo()->GetNumFrames();
    std::uint32_t frame = 0;
    for (auto _ : state) {
        if (source->pushDataToOutput(frame) != 0) {
            state.SkipWithError("frame not pushed");
            break;
        }
        benchmark::DoNotOptimize(source->TakeOutputQueue());
        frame = (frame + 1) % numFrames;
    }
    state.counters["files"] = static_cast<double>(state.range(0));
}
BENCHMARK(BM_SequentialSourcePushFrame)->Arg(1)->Arg(10)->Arg(100)->Arg(1000)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
