// Target filters against plain-file baselines: synchronous recording of large
// textures vs a write() loop of the same bytes, the graph thread's cost per
// frame in the asynchronous filter for small and large textures, and
// end-to-end throughput of the asynchronous filter vs the synchronous one.

#include <KEL/Atom.h>
#include <KEL/DataTypeTextureRGBA.h>
#include <KEL/Source.h>
#include <KelCommon/SharedBuffer.h>
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "DurableFile.h"
#include "targets/TargetKEL2FileWriter.h"
#include "targets/TargetKEL2FileWriterAsync.h"

namespace {

constexpr int kStreams = 4;

class StreamIds : public KEL::Source {
public:
    KelCommon::Guid TypeGuid() const override { return {}; }
    KEL::FilterClassInfo GetFilterClassInfo() const override { return {}; }
    std::vector<std::uint32_t> GetStreamIds() override { return {0, 1, 2, 3}; }
};

std::string ScratchDir() {
    auto dir = std::filesystem::temp_directory_path() / ("kel-targets-bench-" + std::to_string(getpid()));
    std::filesystem::create_directories(dir);
    return dir.string();
}

// One frame: kStreams atoms, each with a square RGBA texture of `bytes`.
std::vector<std::shared_ptr<KEL::Atom>> MakeFrame(std::size_t bytes) {
    const auto side =
        static_cast<std::uint32_t>(std::max<std::size_t>(1, static_cast<std::size_t>(std::sqrt(bytes / 4))));
    std::vector<std::shared_ptr<KEL::Atom>> frame;
    for (int s = 0; s < kStreams; ++s) {
        std::vector<std::uint8_t> pixels(static_cast<std::size_t>(side) * side * 4);
        for (std::size_t i = 0; i < pixels.size(); ++i) {
            pixels[i] = static_cast<std::uint8_t>(i * 31 + s);
        }
        auto atom = std::make_shared<KEL::Atom>(static_cast<std::uint16_t>(s), 0, 0);
        atom->AddDataLayer(std::make_shared<KEL::DataTypeTextureRGBA>(
                               side, side, KelCommon::SharedBuffer::FromVector(std::move(pixels))),
                           true);
        frame.push_back(atom);
    }
    return frame;
}

std::size_t FrameBytes(const std::vector<std::shared_ptr<KEL::Atom>>& frame) {
    std::size_t bytes = 0;
    for (const auto& atom : frame) {
        bytes += atom->PayloadSize();
    }
    return bytes;
}

// A target set up to record into `path`, initialised and playing.
struct Recording {
    Recording(KEL::Filter* filter, const std::string& path, bool dropWhenFull, std::uint32_t bufferSize)
        : target(dynamic_cast<KEL::Target*>(filter)) {
        target->onInitializeParams(nullptr);
        std::string error;
        target->FindParam("KEL File Path")->SetValueFromString(path, &error);
        target->FindParam("Enable Recording")->SetValueFromString("true", &error);
        target->FindParam("Write XML")->SetValueFromString("false", &error);
        if (auto p = target->FindParam("Drop frames when full")) {
            p->SetValueFromString(dropWhenFull ? "true" : "false", &error);
            target->FindParam("Buffer size")->SetValueFromString(std::to_string(bufferSize), &error);
        }
        target->SetInputProfile(&ids, nullptr);
        target->Initialize(nullptr);
        target->onPlay();
        target->SetFilterState(KEL::FILTER_STATE_PLAYING);
    }
    void Deliver(const std::vector<std::shared_ptr<KEL::Atom>>& frame) {
        for (const auto& atom : frame) {
            target->onProcessFrame(atom);
        }
        target->onPostUpdate();
    }
    void FinishAndStop() {
        target->SetInputFinished(true);
        while (!target->IsDone()) {
            std::this_thread::yield();
        }
        target->SetFilterState(KEL::FILTER_STATE_STOPPING);
        target->onStop();
        target->SetFilterState(KEL::FILTER_STATE_INITIALIZED);
    }
    StreamIds ids;
    std::unique_ptr<KEL::Target> target;
};

constexpr int kFramesPerRun = 8;

void BM_SyncWriter4MiBTextures(benchmark::State& state) {
    const auto frame = MakeFrame(4 << 20);
    const std::string path = ScratchDir() + "/sync.kel";
    for (auto _ : state) {
        Recording rec(TargetKEL2FileWriterFilterCreator(), path, true, 1);
        for (int i = 0; i < kFramesPerRun; ++i) {
            rec.Deliver(frame);
        }
        rec.FinishAndStop();
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * kFramesPerRun * FrameBytes(frame)));
    std::filesystem::remove(path);
}
BENCHMARK(BM_SyncWriter4MiBTextures)->Unit(benchmark::kMillisecond)->UseRealTime();

// The baseline: the same bytes written with write() into a file created as
// durably as the serializer creates its own, synced at close.
void BM_PlainWriteLoop4MiBTextures(benchmark::State& state) {
    const auto frame = MakeFrame(4 << 20);
    const std::string path = ScratchDir() + "/plain.bin";
    for (auto _ : state) {
        const int fd = kel_bench::CreateDurably(path);
        for (int i = 0; i < kFramesPerRun; ++i) {
            for (const auto& atom : frame) {
                const auto texture = std::dynamic_pointer_cast<KEL::DataTypeTextureRGBA>(atom->GetAllDataLayers()[0]);
                const auto& pixels = texture->GetPixels();
                std::size_t done = 0;
                while (done < pixels.size()) {
                    const ssize_t n = ::write(fd, pixels.data() + done, pixels.size() - done);
                    if (n <= 0) {
                        state.SkipWithError("write failed");
                        break;
                    }
                    done += static_cast<std::size_t>(n);
                }
            }
        }
        ::fdatasync(fd);
        ::close(fd);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * kFramesPerRun * FrameBytes(frame)));
    std::filesystem::remove(path);
}
BENCHMARK(BM_PlainWriteLoop4MiBTextures)->Unit(benchmark::kMillisecond)->UseRealTime();

// Graph-thread time per frame (onProcessFrame for each atom + onPostUpdate)
// of the asynchronous filter; frames that find the queue full are dropped, so
// the graph thread never waits for the disk.
void BM_AsyncGraphThreadPerFrame(benchmark::State& state) {
    const auto frame = MakeFrame(static_cast<std::size_t>(state.range(0)) / kStreams);
    const std::string path = ScratchDir() + "/async-graph.kel";
    Recording rec(TargetKEL2FileWriterAsyncFilterCreator(), path, true, 4);
    for (auto _ : state) {
        rec.Deliver(frame);
    }
    rec.FinishAndStop();
    std::filesystem::remove(path);
}
BENCHMARK(BM_AsyncGraphThreadPerFrame)->Arg(64 << 10)->Arg(16 << 20)->Unit(benchmark::kMicrosecond);

void EndToEnd(benchmark::State& state, KEL::Filter* (*creator)(), bool async) {
    const auto frame = MakeFrame(4 << 20);
    const std::string path = ScratchDir() + (async ? "/e2e-async.kel" : "/e2e-sync.kel");
    for (auto _ : state) {
        Recording rec(creator(), path, false, 4);
        for (int i = 0; i < kFramesPerRun; ++i) {
            rec.Deliver(frame);
        }
        rec.FinishAndStop();
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * kFramesPerRun * FrameBytes(frame)));
    std::filesystem::remove(path);
}

void BM_EndToEndSync(benchmark::State& state) { EndToEnd(state, &TargetKEL2FileWriterFilterCreator, false); }
void BM_EndToEndAsync(benchmark::State& state) { EndToEnd(state, &TargetKEL2FileWriterAsyncFilterCreator, true); }
BENCHMARK(BM_EndToEndSync)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_EndToEndAsync)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
