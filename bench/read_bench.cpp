// Reading recordings, measured as a user meets it: every figure is taken in a
// fresh process (nothing mapped, no buffers warmed by earlier iterations),
// with the page cache warm (the file was read once before) or dropped (the
// bytes come from the disk), and set against a baseline measured in the same
// run, alternating with it, as the median of several runs.
//
//   kel_read_bench [--dir DIR] [--keep] [--runs N] [--cold-only | --warm-only]
//
// The recording: 64 frames x 4 streams of 4 MiB RGBA textures (1 GiB).
// Figures (bytes per second of payload delivered, and the ratio to the baseline):
//   read()                 a read() loop over the file in 1 MiB pieces, touching
//                          one byte per 4 KiB page (no checks): the baseline
//   read() + XXH3          the same in 256 KiB pieces, hashing each while it
//                          is in the core's cache (one thread; the fastest
//                          piece size for this on the machines we tried)
//   reader, verified       ReadKEL2File, every atom in file order, checksums
//                          verified, one byte per page of every texture touched
//   reader, unverified     the same without checksum verification
//   source playback        SourceKEL2FileReader pushing every frame of the
//                          four streams, one byte per page touched
//   random access          1,000 frames of a 1,000-frame file in random order
//                          against the same frames in file order, and against
//                          pread() of the file's 1,000 equal pieces in the
//                          same random order (the seeks without the reader)
//   recovery open          opening the recording without its index (the writer
//                          died) against opening it through the index; the same
//                          for 100,000 small atoms
//   refresh                listing 1,000 atoms appended to a growing file
//                          against opening a closed file of 1,000 atoms
//
// Cold figures drop the file from the page cache before each run (as root
// through /proc/sys/vm/drop_caches, otherwise with POSIX_FADV_DONTNEED after a
// sync) and are noisy on shared disks: compare the ratios, which are
// measured in the same minutes.

#include <KEL/Atom.h>
#include <KEL/DataTypeBinary.h>
#include <KEL/DataTypeStreamInfo.h>
#include <KEL/DataTypeTextureRGBA.h>
#include <KEL/KELLogger.h>
#include <KEL/ReadKEL2File.h>
#include <KEL/SerializeToKel.h>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <xxhash.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <numeric>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "PageCache.h"
#include "sources/SourceKEL2FileReader.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr std::uint32_t kSide = 1024;  // 1024 x 1024 x 4 = 4 MiB
constexpr std::uint32_t kFrames = 64;
constexpr std::uint16_t kStreams = 4;
constexpr std::uint32_t kRandomFrames = 1000;
constexpr std::uint32_t kRandomSide = 256;  // 256 KiB per frame
constexpr std::size_t kPage = 4096;

double Seconds(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

KelCommon::SharedBuffer Pattern(std::size_t size, std::uint32_t seed) {
    std::vector<std::uint8_t> bytes(size);
    std::uint64_t x = 0x9E3779B97F4A7C15ULL ^ seed;
    for (auto& b : bytes) {
        x ^= x << 13;
        x ^= x >> 7;
        x ^= x << 17;
        b = static_cast<std::uint8_t>(x);
    }
    return KelCommon::SharedBuffer::FromVector(std::move(bytes));
}

// Writes `frames` x `streams` atoms of `side` x `side` textures (the first
// atom of each stream with its stream information, as writers store them).
void WriteRecording(const std::string& path, std::uint32_t frames, std::uint16_t streams, std::uint32_t side,
                    bool close) {
    KEL::SerializeToKel writer(path.c_str(), true, KEL::CURRENT_VERSION, false);
    std::vector<KelCommon::SharedBuffer> pixels;
    for (std::uint32_t i = 0; i < 8; ++i) {
        pixels.push_back(Pattern(std::size_t{side} * side * 4, i));
    }
    for (std::uint32_t f = 0; f < frames; ++f) {
        for (std::uint16_t s = 0; s < streams; ++s) {
            auto atom = std::make_shared<KEL::Atom>(s, f, std::int64_t{f} * 33'333);
            if (f == 0) {
                atom->AddDataLayer(std::make_shared<KEL::DataTypeStreamInfo>(frames, 30.0, "camera"), true);
            }
            atom->AddDataLayer(std::make_shared<KEL::DataTypeTextureRGBA>(side, side, pixels[(f + s) % 8]), true);
            if (writer.SerializeAtom(atom) != KEL::KEL_OK) {
                throw std::runtime_error("cannot write " + path + ": " + writer.GetLastError());
            }
        }
    }
    if (!close) {
        // Leave the file as a writer that died leaves it: no index.
        const auto size = writer.GetBytesWritten();
        std::vector<char> bytes(size);
        std::ifstream(path, std::ios::binary).read(bytes.data(), static_cast<std::streamsize>(size));
        writer.Close();
        std::ofstream(path, std::ios::binary | std::ios::trunc).write(bytes.data(), static_cast<std::streamsize>(size));
        return;
    }
    if (writer.Close() != KEL::KEL_OK) {
        throw std::runtime_error("cannot close " + path);
    }
}

void WriteSmallAtoms(const std::string& path, std::uint32_t count, bool close) {
    KEL::SerializeToKel writer(path.c_str(), true, KEL::CURRENT_VERSION, false);
    const auto blob = Pattern(64, 1);
    for (std::uint32_t i = 0; i < count; ++i) {
        auto atom = std::make_shared<KEL::Atom>(static_cast<std::uint16_t>(i % 4), i / 4, i);
        atom->AddDataLayer(std::make_shared<KEL::DataTypeBinary>("b", blob), true);
        writer.SerializeAtom(atom);
    }
    if (!close) {
        const auto size = writer.GetBytesWritten();
        std::vector<char> bytes(size);
        std::ifstream(path, std::ios::binary).read(bytes.data(), static_cast<std::streamsize>(size));
        writer.Close();
        std::ofstream(path, std::ios::binary | std::ios::trunc).write(bytes.data(), static_cast<std::streamsize>(size));
    }
}

std::uint64_t TouchPixels(const KEL::AtomPtr& atom) {
    std::uint64_t sum = 0;
    for (const auto& layer : atom->GetAllDataLayers()) {
        if (auto texture = KEL::LayerCast<KEL::DataTypeTextureRGBA>(layer)) {
            const auto& pixels = texture->GetPixels();
            for (std::size_t i = 0; i < pixels.size(); i += kPage) {
                sum += pixels.data()[i];
            }
        }
    }
    return sum;
}

std::uint64_t PayloadOf(const KEL::AtomPtr& atom) {
    std::uint64_t bytes = 0;
    for (const auto& layer : atom->GetAllDataLayers()) {
        if (auto texture = KEL::LayerCast<KEL::DataTypeTextureRGBA>(layer)) {
            bytes += texture->GetPixels().size();
        }
    }
    return bytes;
}

// ---- what a child process measures: prints "<bytes> <seconds> <checksum>" ----

struct Result {
    double bytes = 0;
    double seconds = 0;
    std::uint64_t check = 0;
};

Result PlainRead(const std::string& path, bool hash) {
    const auto start = Clock::now();
    Result r;
    const int fd = ::open(path.c_str(), O_RDONLY);
    std::vector<std::uint8_t> buffer(hash ? std::size_t{256} << 10 : std::size_t{1} << 20);
    XXH3_state_t* state = XXH3_createState();
    XXH3_64bits_reset(state);
    ssize_t n = 0;
    while ((n = ::read(fd, buffer.data(), buffer.size())) > 0) {
        if (hash) {
            XXH3_64bits_update(state, buffer.data(), static_cast<std::size_t>(n));
        }
        for (ssize_t i = 0; i < n; i += kPage) {
            r.check += buffer[static_cast<std::size_t>(i)];
        }
        r.bytes += static_cast<double>(n);
    }
    r.check += XXH3_64bits_digest(state);
    XXH3_freeState(state);
    ::close(fd);
    r.seconds = Seconds(start);
    return r;
}

Result ReadAtoms(const std::string& path, bool verify) {
    const auto start = Clock::now();
    Result r;
    KEL::ReaderOptions options;
    options.verifyChecksums = verify;
    KEL::ReadKEL2File reader(path.c_str(), options);
    if (reader.Initialize() != KEL::KEL_OK) {
        throw std::runtime_error("cannot open " + path);
    }
    for (std::uint32_t f = 0; f < kFrames; ++f) {
        for (std::uint16_t s = 0; s < kStreams; ++s) {
            const auto atom = reader.GetFrameAtom(s, f);
            if (!atom) {
                throw std::runtime_error("atom missing");
            }
            r.check += TouchPixels(atom);
            r.bytes += static_cast<double>(PayloadOf(atom));
        }
    }
    r.seconds = Seconds(start);
    return r;
}

Result PlaySource(const std::string& path) {
    const auto start = Clock::now();
    Result r;
    Kel2File::SourceKEL2FileReader source;
    source.onInitializeParams(nullptr);
    std::string error;
    if (!source.FindParam("KEL File Path")->SetValueFromString(path, &error) || source.onInitialize(nullptr) != 0) {
        throw std::runtime_error("source: " + error + source.GetLastErrorMessage());
    }
    for (std::uint32_t f = 0; f < kFrames; ++f) {
        if (source.pushDataToOutput(f) != 0) {
            throw std::runtime_error("frame not pushed");
        }
        for (const auto& atom : source.TakeOutputQueue()) {
            r.check += TouchPixels(atom);
            r.bytes += static_cast<double>(PayloadOf(atom));
        }
    }
    source.onDeInitialize();
    r.seconds = Seconds(start);
    return r;
}

Result RandomFrames(const std::string& path, bool shuffled) {
    std::vector<std::uint32_t> order(kRandomFrames);
    std::iota(order.begin(), order.end(), 0);
    if (shuffled) {
        std::shuffle(order.begin(), order.end(), std::mt19937(42));
    }
    const auto start = Clock::now();
    Result r;
    KEL::ReadKEL2File reader(path.c_str());
    if (reader.Initialize() != KEL::KEL_OK) {
        throw std::runtime_error("cannot open " + path);
    }
    for (const std::uint32_t f : order) {
        const auto atom = reader.GetFrameAtom(0, f);
        r.check += TouchPixels(atom);
        r.bytes += static_cast<double>(PayloadOf(atom));
    }
    r.seconds = Seconds(start);
    return r;
}

// The file in kRandomFrames equal pieces, read with pread() in the order
// RandomFrames(path, true) fetches the frames.
Result RandomPieces(const std::string& path) {
    std::vector<std::uint32_t> order(kRandomFrames);
    std::iota(order.begin(), order.end(), 0);
    std::shuffle(order.begin(), order.end(), std::mt19937(42));
    const auto start = Clock::now();
    Result r;
    const int fd = ::open(path.c_str(), O_RDONLY);
    const std::uint64_t piece = fs::file_size(path) / kRandomFrames;
    std::vector<std::uint8_t> buffer(piece);
    for (const std::uint32_t i : order) {
        const ssize_t n = ::pread(fd, buffer.data(), piece, static_cast<off_t>(i * piece));
        for (ssize_t k = 0; k < n; k += kPage) {
            r.check += buffer[static_cast<std::size_t>(k)];
        }
        r.bytes += static_cast<double>(std::max<ssize_t>(n, 0));
    }
    ::close(fd);
    r.seconds = Seconds(start);
    return r;
}

Result Open(const std::string& path) {
    const auto start = Clock::now();
    Result r;
    KEL::ReadKEL2File reader(path.c_str());
    if (reader.Initialize() != KEL::KEL_OK) {
        throw std::runtime_error("cannot open " + path);
    }
    r.seconds = Seconds(start);
    r.bytes = static_cast<double>(reader.GetNumAtoms());
    r.check = reader.GetDamageReport().indexUsed ? 1 : 0;
    return r;
}

// A reader follows a recording: 1,000 more atoms arrive, Refresh lists them.
Result Refresh(const std::string& dir) {
    const std::string path = dir + "/growing.kel";
    KEL::SerializeToKel writer(path.c_str(), true, KEL::CURRENT_VERSION, false);
    const auto blob = Pattern(4096, 3);
    auto append = [&](std::uint32_t from) {
        for (std::uint32_t i = from; i < from + 1000; ++i) {
            auto atom = std::make_shared<KEL::Atom>(static_cast<std::uint16_t>(i % 4), i / 4, i);
            atom->AddDataLayer(std::make_shared<KEL::DataTypeBinary>("b", blob), true);
            writer.SerializeAtom(atom);
        }
    };
    append(0);
    KEL::ReadKEL2File reader(path.c_str());
    reader.Initialize();
    append(1000);
    const auto start = Clock::now();
    reader.Refresh();
    Result r;
    r.seconds = Seconds(start);
    r.bytes = static_cast<double>(reader.GetNumAtoms());
    return r;
}

int Child(const std::vector<std::string>& args) {
    KEL::SetKELLoggerInstance(nullptr);
    const std::string& mode = args.at(0);
    const std::string& path = args.at(1);
    Result r;
    if (mode == "read" || mode == "readhash") {
        r = PlainRead(path, mode == "readhash");
    } else if (mode == "verified" || mode == "unverified") {
        r = ReadAtoms(path, mode == "verified");
    } else if (mode == "source") {
        r = PlaySource(path);
    } else if (mode == "random" || mode == "sequential") {
        r = RandomFrames(path, mode == "random");
    } else if (mode == "randompread") {
        r = RandomPieces(path);
    } else if (mode == "open") {
        r = Open(path);
    } else if (mode == "refresh") {
        r = Refresh(path);
    } else {
        return 2;
    }
    std::printf("%.0f %.9f %llu\n", r.bytes, r.seconds, static_cast<unsigned long long>(r.check));
    return 0;
}

// ---- the parent: files, cache state, alternation, medians ----

std::string gSelf;

void Warm(const std::string& path) { PlainRead(path, false); }

Result RunChild(const std::string& mode, const std::string& path) {
    int pipeFds[2];
    if (::pipe(pipeFds) != 0) {
        throw std::runtime_error("pipe");
    }
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::dup2(pipeFds[1], STDOUT_FILENO);
        ::close(pipeFds[0]);
        ::execl(gSelf.c_str(), gSelf.c_str(), "--child", mode.c_str(), path.c_str(), static_cast<char*>(nullptr));
        ::_exit(127);
    }
    ::close(pipeFds[1]);
    std::string out;
    char buffer[256];
    ssize_t n = 0;
    while ((n = ::read(pipeFds[0], buffer, sizeof buffer)) > 0) {
        out.append(buffer, static_cast<std::size_t>(n));
    }
    ::close(pipeFds[0]);
    int status = 0;
    ::waitpid(pid, &status, 0);
    Result r;
    unsigned long long check = 0;
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0 ||
        std::sscanf(out.c_str(), "%lf %lf %llu", &r.bytes, &r.seconds, &check) != 3) {
        throw std::runtime_error("measurement '" + mode + "' failed");
    }
    r.check = check;
    return r;
}

double Median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

struct Comparison {
    std::string what;
    std::string subjectMode;
    std::string baselineMode;
    std::string subjectPath;
    std::string baselinePath;
    bool cold = false;
    bool rate = true;  // compare bytes per second (true) or times (false)
    std::string baselineName;
};

void Compare(const Comparison& c, int runs) {
    std::vector<double> subject;
    std::vector<double> baseline;
    for (int i = 0; i < runs; ++i) {
        for (const bool isBaseline : {true, false}) {
            const std::string& path = isBaseline ? c.baselinePath : c.subjectPath;
            c.cold ? kel_bench::DropFromCache(path) : Warm(path);
            const Result r = RunChild(isBaseline ? c.baselineMode : c.subjectMode, path);
            (isBaseline ? baseline : subject).push_back(c.rate ? r.bytes / r.seconds / 1e9 : r.seconds * 1e3);
        }
    }
    const double s = Median(subject);
    const double b = Median(baseline);
    const char* unit = c.rate ? "GB/s" : "ms";
    std::printf("%-44s %9.3f %-4s  vs %-24s %9.3f %-4s  ratio %5.2f\n", c.what.c_str(), s, unit, c.baselineName.c_str(),
                b, unit, c.rate ? s / b : b / s);
    std::fflush(stdout);
}

int Parent(int argc, char** argv) {
    std::string dir = (fs::temp_directory_path() / ("kel-read-bench-" + std::to_string(::getpid()))).string();
    int runs = 5;
    bool warm = true;
    bool cold = true;
    bool keep = false;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--dir" && i + 1 < argc) {
            dir = argv[++i];
        } else if (arg == "--runs" && i + 1 < argc) {
            runs = std::max(1, std::atoi(argv[++i]));
        } else if (arg == "--keep") {
            keep = true;
        } else if (arg == "--cold-only") {
            warm = false;
        } else if (arg == "--warm-only") {
            cold = false;
        } else {
            std::fprintf(stderr, "usage: %s [--dir DIR] [--keep] [--runs N] [--cold-only | --warm-only]\n", argv[0]);
            return 2;
        }
    }
    fs::create_directories(dir);
    KEL::SetKELLoggerInstance(nullptr);
    const std::string big = dir + "/recording.kel";
    const std::string unclosed = dir + "/recording-unclosed.kel";
    const std::string frames = dir + "/frames1000.kel";
    const std::string small = dir + "/small100k.kel";
    const std::string smallUnclosed = dir + "/small100k-unclosed.kel";
    std::printf("writing the recordings in %s ...\n", dir.c_str());
    std::fflush(stdout);
    WriteRecording(big, kFrames, kStreams, kSide, true);
    WriteRecording(unclosed, kFrames, kStreams, kSide, false);
    WriteRecording(frames, kRandomFrames, 1, kRandomSide, true);
    WriteSmallAtoms(small, 100'000, true);
    WriteSmallAtoms(smallUnclosed, 100'000, false);
    std::printf("median of %d fresh processes each, alternating with the baseline\n\n", runs);

    const std::string plain = "read() of the same file";
    for (const bool isCold : {false, true}) {
        if ((isCold && !cold) || (!isCold && !warm)) {
            continue;
        }
        const std::string state = isCold ? " (from disk)" : " (page cache warm)";
        Compare({"reader, verified" + state, "verified", "read", big, big, isCold, true, plain}, runs);
        Compare({"reader, verified" + state, "verified", "readhash", big, big, isCold, true, "read() + XXH3"}, runs);
        Compare({"reader, unverified" + state, "unverified", "read", big, big, isCold, true, plain}, runs);
        Compare({"source playback" + state, "source", "read", big, big, isCold, true, plain}, runs);
        Compare(
            {"random access" + state, "random", "sequential", frames, frames, isCold, true, "the same frames in order"},
            runs);
        Compare({"random access" + state, "random", "randompread", frames, frames, isCold, true,
                 "pread() in the same order"},
                runs);
    }
    if (warm) {
        Compare({"open 1 GiB without index (walk)", "open", "open", unclosed, big, false, false, "through the index"},
                runs);
        Compare({"open 100,000 atoms without index (walk)", "open", "open", smallUnclosed, small, false, false,
                 "through the index"},
                runs);
        const Result indexed = RunChild("open", small);
        std::printf("%-44s %9.3f ms\n", "open 100,000 atoms through the index", indexed.seconds * 1e3);
        std::vector<double> refresh;
        for (int i = 0; i < runs; ++i) {
            refresh.push_back(RunChild("refresh", dir).seconds * 1e3);
        }
        std::printf("%-44s %9.3f ms\n", "refresh after 1,000 appended atoms", Median(refresh));
    }
    if (!keep) {
        std::error_code ec;
        fs::remove_all(dir, ec);
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    gSelf = fs::canonical("/proc/self/exe").string();
    try {
        if (argc >= 2 && std::string(argv[1]) == "--child") {
            return Child(std::vector<std::string>(argv + 2, argv + argc));
        }
        return Parent(argc, argv);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "kel_read_bench: %s\n", e.what());
        return 1;
    }
}
