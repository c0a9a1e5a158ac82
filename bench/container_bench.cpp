// Container writing and opening, each against what bounds it:
//   write:  atoms carrying 4 MiB RGBA textures vs write() of the same bytes,
//           both created durably (DurableFile.h) and synced once at close
//   open:   100,000 atoms through the index; the same number of atoms in a
//           small and in a large file (opening must not grow with the payload)
// Reading is measured by kel_read_bench, in fresh processes.
// Files live in a scratch directory under $TMPDIR (or /tmp), same disk for
// both sides of each comparison.

#include <KEL/Atom.h>
#include <KEL/DataTypeBinary.h>
#include <KEL/DataTypeTextureRGBA.h>
#include <KEL/KELLogger.h>
#include <KEL/ReadKEL2File.h>
#include <KEL/SerializeToKel.h>
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include "DurableFile.h"

namespace {

constexpr std::uint32_t kTextureSide = 1024;  // 1024 x 1024 x 4 = 4 MiB
constexpr int kTextureAtoms = 32;
constexpr int kIndexAtoms = 100'000;
constexpr int kPayloadFileAtoms = 1'000;

const std::filesystem::path& ScratchDir() {
    static const std::filesystem::path dir = [] {
        const char* tmp = std::getenv("TMPDIR");
        std::filesystem::path d =
            std::filesystem::path(tmp != nullptr ? tmp : "/tmp") / ("kel-container-bench-" + std::to_string(getpid()));
        std::filesystem::create_directories(d);
        std::atexit([] {
            std::error_code ec;
            std::filesystem::remove_all(ScratchDir(), ec);
        });
        return d;
    }();
    return dir;
}

KelCommon::SharedBuffer Pattern(std::size_t size, std::uint32_t seed) {
    std::vector<std::uint8_t> bytes(size);
    std::uint32_t x = seed * 2654435761U + 1;
    for (auto& b : bytes) {
        x = x * 1664525U + 1013904223U;
        b = static_cast<std::uint8_t>(x >> 24);
    }
    return KelCommon::SharedBuffer::FromVector(std::move(bytes));
}

const std::vector<KEL::AtomPtr>& TextureAtoms() {
    static const std::vector<KEL::AtomPtr> atoms = [] {
        std::vector<KEL::AtomPtr> v;
        for (int i = 0; i < kTextureAtoms; ++i) {
            auto atom = std::make_shared<KEL::Atom>(1, static_cast<std::uint32_t>(i), i);
            atom->AddDataLayer(
                std::make_shared<KEL::DataTypeTextureRGBA>(
                    kTextureSide, kTextureSide,
                    Pattern(std::size_t{kTextureSide} * kTextureSide * 4, static_cast<std::uint32_t>(i))),
                true);
            v.push_back(atom);
        }
        return v;
    }();
    return atoms;
}

void WriteContainer(const std::string& path, const std::vector<KEL::AtomPtr>& atoms) {
    KEL::SerializeToKel writer(path.c_str(), true, KEL::CURRENT_VERSION, false);
    for (const auto& atom : atoms) {
        if (writer.SerializeAtom(atom) != KEL::KEL_OK) {
            throw std::runtime_error("write failed: " + writer.GetLastError());
        }
    }
    if (writer.Close() != KEL::KEL_OK) {
        throw std::runtime_error("close failed: " + writer.GetLastError());
    }
}

// A file of `count` atoms over 4 streams, each with one Binary layer of
// `payload` bytes.
std::string PayloadFile(int count, std::size_t payload) {
    const std::string path =
        (ScratchDir() / ("atoms-" + std::to_string(count) + "-" + std::to_string(payload) + ".kel")).string();
    if (!std::filesystem::exists(path)) {
        const auto blob = Pattern(payload, 7);
        KEL::SerializeToKel writer(path.c_str(), true, KEL::CURRENT_VERSION, false);
        for (int i = 0; i < count; ++i) {
            auto atom =
                std::make_shared<KEL::Atom>(static_cast<std::uint16_t>(i % 4), static_cast<std::uint32_t>(i / 4), i);
            atom->AddDataLayer(std::make_shared<KEL::DataTypeBinary>("b", blob), true);
            writer.SerializeAtom(atom);
        }
    }
    return path;
}

long PageFaults() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_minflt + usage.ru_majflt;
}

void BM_WriteTextureAtoms(benchmark::State& state) {
    const auto& atoms = TextureAtoms();
    const std::string path = (ScratchDir() / "textures.kel").string();
    for (auto _ : state) {
        ::unlink(path.c_str());
        WriteContainer(path, atoms);
    }
    state.SetBytesProcessed(state.iterations() * kTextureAtoms * std::int64_t{kTextureSide} * kTextureSide * 4);
}
BENCHMARK(BM_WriteTextureAtoms)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_WritePlainBaseline(benchmark::State& state) {
    const auto& atoms = TextureAtoms();
    const std::string path = (ScratchDir() / "plain.bin").string();
    for (auto _ : state) {
        ::unlink(path.c_str());
        const int fd = kel_bench::CreateDurably(path);
        for (const auto& atom : atoms) {
            const auto& pixels =
                KEL::LayerCast<KEL::DataTypeTextureRGBA>(atom->GetAllDataLayers().front())->GetPixels();
            if (::write(fd, pixels.data(), pixels.size()) != static_cast<ssize_t>(pixels.size())) {
                state.SkipWithError("write failed");
            }
        }
        ::fdatasync(fd);
        ::close(fd);
    }
    state.SetBytesProcessed(state.iterations() * kTextureAtoms * std::int64_t{kTextureSide} * kTextureSide * 4);
}
BENCHMARK(BM_WritePlainBaseline)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_Open(benchmark::State& state) {
    const std::string path = PayloadFile(static_cast<int>(state.range(0)), static_cast<std::size_t>(state.range(1)));
    long faults = 0;
    for (auto _ : state) {
        const long before = PageFaults();
        KEL::ReadKEL2File reader(path.c_str());
        if (reader.Initialize() != KEL::KEL_OK || reader.GetNumAtoms() != static_cast<std::uint64_t>(state.range(0))) {
            state.SkipWithError("open failed");
        }
        faults += PageFaults() - before;
    }
    state.counters["file_MiB"] = static_cast<double>(std::filesystem::file_size(path)) / (1 << 20);
    state.counters["faults_per_open"] = static_cast<double>(faults) / static_cast<double>(state.iterations());
}
BENCHMARK(BM_Open)
    ->Args({kIndexAtoms, 16})
    ->Args({kPayloadFileAtoms, 16})
    ->Args({kPayloadFileAtoms, 256 * 1024})
    ->Unit(benchmark::kMicrosecond);

}  // namespace

int main(int argc, char** argv) {
    KEL::SetKELLoggerInstance(nullptr);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
