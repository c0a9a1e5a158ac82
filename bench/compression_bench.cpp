// Compressed takes against what users would otherwise store and against raw
// takes, on realistic content: four cameras of 1920x1080 photographs (RGBA,
// from Debian's mate-backgrounds, with sensor noise added per frame) and a
// scanned-like mesh of 160,000 vertices (a displaced, noisy surface with
// texture coordinates and 318,000 triangles).
//
//   kel_compression_bench --photos DIR [--dir DIR] [--frames N] [--level L] [--runs N]
//
// DIR holds 1920x1080 RGBA files named *.rgba (scripts/run-benchmarks.sh
// makes them from the package's photographs).
//
// Figures, each against a baseline measured in the same run:
//   ratio            per layer type, our stored bytes (filter + zstd in 1 MiB
//                    pieces) against plain zstd at the same level over the
//                    same bytes in 1 MiB chunks (what MCAP and rosbag2 store),
//                    and each filter's ratio (how the filters were chosen)
//   write            a compressed take written with SerializeToKel (pieces
//                    compressed on every core) against one thread that
//                    compresses 1 MiB chunks and writes them (as MCAP and
//                    rosbag2 do), both synced once at the end
//   read from disk   every atom of the compressed take read and verified
//                    (page cache dropped) against the raw take
//   read warm        the same with the files in the page cache
//   play warm        a consumer that uses every byte of each frame, with the
//                    next atom decoded ahead while it works, against decoding
//                    each atom only when it is asked for, and against the raw
//                    take
//   open             opening each take through its index

#include <KEL/Atom.h>
#include <KEL/DataTypeMesh.h>
#include <KEL/DataTypeTextureRGBA.h>
#include <KEL/KELLogger.h>
#include <KEL/ReadKEL2File.h>
#include <KEL/SerializeToKel.h>
#include <fcntl.h>
#include <unistd.h>
#include <zstd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "PageCache.h"
#include "container/BlobCoding.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using Bytes = std::vector<std::uint8_t>;
using KEL::container::BlobFilter;

constexpr std::uint32_t kWidth = 1920;
constexpr std::uint32_t kHeight = 1080;
constexpr std::size_t kChunk = 1 << 20;

double Seconds(Clock::time_point since) { return std::chrono::duration<double>(Clock::now() - since).count(); }

double Median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

// A photograph with sensor noise: each channel value plus a sum of four
// uniform draws (close to a normal distribution, standard deviation about
// 2.3 levels), as a camera's read and shot noise.
Bytes Noisy(const Bytes& photo, std::uint64_t seed) {
    Bytes out(photo.size());
    std::uint64_t x = seed * 0x9E3779B97F4A7C15ULL + 1;
    for (std::size_t i = 0; i < photo.size(); ++i) {
        if (i % 4 == 3) {
            out[i] = 255;
            continue;
        }
        x ^= x << 13;
        x ^= x >> 7;
        x ^= x << 17;
        const int noise = static_cast<int>((x & 7) + ((x >> 8) & 7) + ((x >> 16) & 7) + ((x >> 24) & 7)) - 14;
        out[i] = static_cast<std::uint8_t>(std::clamp(photo[i] + noise / 2, 0, 255));
    }
    return out;
}

struct Mesh {
    Bytes vertices, indices, texCoords;
};

// A scanned-like surface: a grid of 400 x 400 vertices on a sphere displaced
// by a few octaves of waves, with float noise of a scanner's precision;
// triangles row by row, as a reconstruction emits them.
Mesh MakeMesh(std::uint64_t seed) {
    constexpr int n = 400;
    std::mt19937_64 random(seed);
    std::normal_distribution<float> noise(0.0F, 0.0004F);
    std::vector<float> v;
    std::vector<float> t;
    for (int i = 0; i < n; ++i) {
        for (int j = 0; j < n; ++j) {
            const float u = static_cast<float>(i) / (n - 1);
            const float w = static_cast<float>(j) / (n - 1);
            const float theta = u * 3.14159F;
            const float phi = w * 6.28318F;
            float r = 0.9F;
            for (int octave = 1; octave <= 4; ++octave) {
                r += 0.04F / static_cast<float>(octave) * std::sin(static_cast<float>(octave) * 7.0F * theta) *
                     std::cos(static_cast<float>(octave) * 5.0F * phi);
            }
            v.push_back(r * std::sin(theta) * std::cos(phi) + noise(random));
            v.push_back(r * std::cos(theta) + noise(random));
            v.push_back(r * std::sin(theta) * std::sin(phi) + noise(random));
            t.push_back(w);
            t.push_back(u);
        }
    }
    std::vector<std::uint32_t> idx;
    for (int i = 0; i + 1 < n; ++i) {
        for (int j = 0; j + 1 < n; ++j) {
            const auto a = static_cast<std::uint32_t>(i * n + j);
            const auto b = a + static_cast<std::uint32_t>(n);
            idx.insert(idx.end(), {a, b, a + 1, a + 1, b, b + 1});
        }
    }
    auto bytesOf = [](const auto& vec) {
        Bytes b(vec.size() * sizeof(vec[0]));
        std::memcpy(b.data(), vec.data(), b.size());
        return b;
    };
    return {bytesOf(v), bytesOf(idx), bytesOf(t)};
}

std::size_t PlainZstdChunks(const Bytes& data, int level) {
    std::vector<std::uint8_t> out(ZSTD_compressBound(kChunk));
    std::size_t total = 0;
    for (std::size_t off = 0; off < data.size(); off += kChunk) {
        const std::size_t n = std::min(kChunk, data.size() - off);
        total += ZSTD_compress(out.data(), out.size(), data.data() + off, n, level);
    }
    return total;
}

std::size_t FilteredZstdChunks(const Bytes& data, BlobFilter filter, unsigned es, int level) {
    KEL::container::BlobCoding coding;
    coding.codec = KEL::CompressionCodec::kZstd;
    coding.filter = filter;
    coding.elementSize = static_cast<std::uint8_t>(es);
    std::vector<std::uint8_t> out;
    std::string why;
    std::size_t total = 0;
    for (std::size_t off = 0; off < data.size(); off += kChunk) {
        KEL::container::CompressPiece(data.data() + off, std::min(kChunk, data.size() - off), coding, level, out, why);
        total += out.size();
    }
    return total;
}

void Ratios(const std::vector<Bytes>& textures, const Mesh& mesh, int level) {
    struct Kind {
        const char* name;
        std::vector<const Bytes*> data;
        KEL::BlobKind kind;
        std::vector<std::pair<BlobFilter, unsigned>> filters;
    };
    std::vector<const Bytes*> pixels;
    for (const auto& t : textures) {
        pixels.push_back(&t);
    }
    const std::vector<Kind> kinds{
        {"texture (RGBA photo + noise)",
         pixels,
         KEL::BlobKind::kPixelsRGBA8,
         {{BlobFilter::kNone, 1}, {BlobFilter::kShuffle, 4}, {BlobFilter::kShuffleDelta, 4}}},
        {"mesh vertices (float32 x3)",
         {&mesh.vertices},
         KEL::BlobKind::kFloat32,
         {{BlobFilter::kNone, 1}, {BlobFilter::kShuffle, 4}, {BlobFilter::kShuffleDelta, 4}}},
        {"mesh texture coordinates (float32 x2)",
         {&mesh.texCoords},
         KEL::BlobKind::kFloat32,
         {{BlobFilter::kNone, 1}, {BlobFilter::kShuffle, 4}, {BlobFilter::kShuffleDelta, 4}}},
        {"mesh indices (uint32 x3)",
         {&mesh.indices},
         KEL::BlobKind::kIndices32,
         {{BlobFilter::kNone, 1}, {BlobFilter::kShuffle, 4}, {BlobFilter::kDeltaShuffle, 4}}},
    };
    const char* names[] = {"none", "shuffle", "delta+shuffle", "shuffle+delta"};
    std::printf("ratio (original / stored), zstd level %d, 1 MiB pieces:\n", level);
    for (const auto& k : kinds) {
        std::size_t original = 0;
        std::size_t plain = 0;
        std::map<int, std::size_t> byFilter;
        for (const Bytes* d : k.data) {
            original += d->size();
            plain += PlainZstdChunks(*d, level);
            for (const auto& [f, es] : k.filters) {
                byFilter[static_cast<int>(f)] += FilteredZstdChunks(*d, f, es, level);
            }
        }
        const auto chosen = KEL::container::CodingFor(k.kind, KEL::CompressionCodec::kZstd);
        const double ours =
            static_cast<double>(original) / static_cast<double>(byFilter[static_cast<int>(chosen.filter)]);
        const double base = static_cast<double>(original) / static_cast<double>(plain);
        std::printf("  %-40s ours %5.2f (%s)  vs plain zstd %5.2f  ratio %5.2f   [", k.name, ours,
                    names[static_cast<int>(chosen.filter)], base, ours / base);
        for (const auto& [f, bytes] : byFilter) {
            std::printf(" %s %.2f", names[f], static_cast<double>(original) / static_cast<double>(bytes));
        }
        std::printf(" ]\n");
    }
}

struct Take {
    std::vector<Bytes> textures;  // per camera, two noisy frames
    Mesh mesh;
    int frames = 0;
    std::uint64_t TotalBytes() const {
        std::uint64_t b = 0;
        for (int f = 0; f < frames; ++f) {
            for (std::size_t c = 0; c < textures.size() / 2; ++c) {
                b += textures[c * 2 + static_cast<std::size_t>(f % 2)].size();
            }
            b += mesh.vertices.size() + mesh.indices.size() + mesh.texCoords.size();
        }
        return b;
    }
};

std::vector<KEL::AtomPtr> FrameAtoms(const Take& take, int f) {
    std::vector<KEL::AtomPtr> atoms;
    const std::size_t cameras = take.textures.size() / 2;
    for (std::size_t c = 0; c < cameras; ++c) {
        auto atom = std::make_shared<KEL::Atom>(static_cast<std::uint16_t>(c), static_cast<std::uint32_t>(f),
                                                std::int64_t{f} * 33'333);
        const Bytes& px = take.textures[c * 2 + static_cast<std::size_t>(f % 2)];
        atom->AddDataLayer(std::make_shared<KEL::DataTypeTextureRGBA>(
                               kWidth, kHeight, KelCommon::SharedBuffer::Alias(nullptr, px.data(), px.size())),
                           true);
        atoms.push_back(atom);
    }
    auto mesh = std::make_shared<KEL::Atom>(static_cast<std::uint16_t>(cameras), static_cast<std::uint32_t>(f),
                                            std::int64_t{f} * 33'333);
    auto alias = [](const Bytes& b) { return KelCommon::SharedBuffer::Alias(nullptr, b.data(), b.size()); };
    mesh->AddDataLayer(std::make_shared<KEL::DataTypeMesh>(alias(take.mesh.vertices), alias(take.mesh.indices),
                                                           alias(take.mesh.texCoords)),
                       true);
    atoms.push_back(mesh);
    return atoms;
}

double WriteTake(const Take& take, const std::string& path, const KEL::CompressionSetting& compression) {
    const auto start = Clock::now();
    KEL::SerializerOptions options;
    options.compression = compression;
    KEL::SerializeToKel writer(path.c_str(), true, KEL::CURRENT_VERSION, false, options);
    for (int f = 0; f < take.frames; ++f) {
        for (const auto& atom : FrameAtoms(take, f)) {
            if (writer.SerializeAtom(atom) != KEL::KEL_OK) {
                std::fprintf(stderr, "write failed: %s\n", writer.GetLastError().c_str());
                std::exit(1);
            }
        }
    }
    writer.Close();
    return Seconds(start);
}

// One thread compresses every blob in 1 MiB chunks with zstd and writes the
// chunks as they come, as MCAP's and rosbag2's writers do; synced at the end.
double WriteSingleThreaded(const Take& take, const std::string& path, int level) {
    const auto start = Clock::now();
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    std::vector<std::uint8_t> out(ZSTD_compressBound(kChunk));
    ZSTD_CCtx* cctx = ZSTD_createCCtx();
    auto put = [&](const Bytes& data) {
        for (std::size_t off = 0; off < data.size(); off += kChunk) {
            const std::size_t n = ZSTD_compressCCtx(cctx, out.data(), out.size(), data.data() + off,
                                                    std::min(kChunk, data.size() - off), level);
            if (::write(fd, out.data(), n) != static_cast<ssize_t>(n)) {
                std::perror("write");
                std::exit(1);
            }
        }
    };
    for (int f = 0; f < take.frames; ++f) {
        for (std::size_t c = 0; c < take.textures.size() / 2; ++c) {
            put(take.textures[c * 2 + static_cast<std::size_t>(f % 2)]);
        }
        put(take.mesh.vertices);
        put(take.mesh.indices);
        put(take.mesh.texCoords);
    }
    ::fdatasync(fd);
    ::close(fd);
    ZSTD_freeCCtx(cctx);
    return Seconds(start);
}

// Reads every atom in file order, verified, touching one byte per page of
// every texture, or, with `consume`, summing every byte of every texture (a
// consumer that converts or uploads each frame); returns seconds.
double ReadTake(const std::string& path, bool consume = false, bool decodeAhead = true) {
    const auto start = Clock::now();
    KEL::ReaderOptions options;
    options.decodeAhead = decodeAhead;
    KEL::ReadKEL2File reader(path.c_str(), options);
    if (reader.Initialize() != KEL::KEL_OK) {
        std::fprintf(stderr, "cannot open %s\n", path.c_str());
        std::exit(1);
    }
    volatile std::uint64_t sink = 0;
    for (std::uint64_t i = 0; i < reader.GetNumAtoms(); ++i) {
        const auto atom = reader.GetAtomAt(i);
        if (!atom) {
            std::fprintf(stderr, "atom %llu does not read\n", static_cast<unsigned long long>(i));
            std::exit(1);
        }
        for (const auto& layer : atom->GetAllDataLayers()) {
            if (auto t = KEL::LayerCast<KEL::DataTypeTextureRGBA>(layer)) {
                const std::uint8_t* pixels = t->GetPixels().data();
                const std::size_t size = t->GetPixels().size();
                std::uint64_t sum = 0;
                for (std::size_t p = 0; p < size; p += consume ? 1 : 4096) {
                    sum += pixels[p];
                }
                sink = sink + sum;
            }
        }
    }
    (void)sink;
    return Seconds(start);
}

double OpenTake(const std::string& path) {
    std::vector<double> times;
    for (int i = 0; i < 21; ++i) {
        const auto start = Clock::now();
        KEL::ReadKEL2File reader(path.c_str());
        reader.Initialize();
        times.push_back(Seconds(start));
    }
    return Median(times);
}

Bytes LoadRgba(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    Bytes b(std::size_t{kWidth} * kHeight * 4);
    in.read(reinterpret_cast<char*>(b.data()), static_cast<std::streamsize>(b.size()));
    if (in.gcount() != static_cast<std::streamsize>(b.size())) {
        std::fprintf(stderr, "%s is not a %ux%u RGBA file\n", path.c_str(), kWidth, kHeight);
        std::exit(1);
    }
    return b;
}

}  // namespace

int main(int argc, char** argv) {
    std::string photos;
    std::string dir = "/tmp/kel-compression-bench";
    int frames = 24;
    int level = 1;
    int runs = 3;
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string a = argv[i];
        if (a == "--photos") {
            photos = argv[i + 1];
        } else if (a == "--dir") {
            dir = argv[i + 1];
        } else if (a == "--frames") {
            frames = std::stoi(argv[i + 1]);
        } else if (a == "--level") {
            level = std::stoi(argv[i + 1]);
        } else if (a == "--runs") {
            runs = std::stoi(argv[i + 1]);
        }
    }
    if (photos.empty()) {
        std::fprintf(stderr, "usage: kel_compression_bench --photos DIR [--dir DIR] [--frames N] [--level L]\n");
        return 2;
    }
    KEL::SetKELLoggerInstance(nullptr);
    std::vector<fs::path> files;
    for (const auto& e : fs::directory_iterator(photos)) {
        if (e.path().extension() == ".rgba") {
            files.push_back(e.path());
        }
    }
    std::sort(files.begin(), files.end());
    if (files.size() < 4) {
        std::fprintf(stderr, "%s holds fewer than 4 .rgba photographs\n", photos.c_str());
        return 1;
    }
    Take take;
    take.frames = frames;
    for (std::size_t c = 0; c < 4; ++c) {
        const Bytes photo = LoadRgba(files[c]);
        take.textures.push_back(Noisy(photo, c * 2));
        take.textures.push_back(Noisy(photo, c * 2 + 1));
    }
    take.mesh = MakeMesh(7);
    Ratios({take.textures[0], take.textures[2], take.textures[4], take.textures[6]}, take.mesh, level);

    fs::create_directories(dir);
    const std::string raw = dir + "/raw.kel";
    const std::string packed = dir + "/zstd.kel";
    const std::string baseline = dir + "/baseline.zst";
    const KEL::CompressionSetting zstd{KEL::CompressionCodec::kZstd, level};
    const double gb = static_cast<double>(take.TotalBytes()) / 1e9;
    std::vector<double> ours;
    std::vector<double> single;
    std::vector<double> plain;
    for (int r = 0; r < runs; ++r) {
        ours.push_back(gb / WriteTake(take, packed, zstd));
        single.push_back(gb / WriteSingleThreaded(take, baseline, level));
        plain.push_back(gb / WriteTake(take, raw, {}));
    }
    std::printf(
        "\ntake: %d frames x (4 cameras x 1920x1080 + mesh of 160,000 vertices) = %.2f GB; stored %.2f GB "
        "compressed (ratio %.2f)\n",
        frames, gb, static_cast<double>(fs::file_size(packed)) / 1e9,
        static_cast<double>(fs::file_size(raw)) / static_cast<double>(fs::file_size(packed)));
    std::printf("%-52s %7.3f GB/s  vs %-30s %7.3f GB/s  ratio %5.2f\n", "write compressed (all cores)", Median(ours),
                "one thread compressing 1 MiB", Median(single), Median(ours) / Median(single));
    std::printf("%-52s %7.3f GB/s  vs %-30s %7.3f GB/s  ratio %5.2f\n", "write compressed (all cores)", Median(ours),
                "raw take", Median(plain), Median(ours) / Median(plain));

    for (const bool cold : {true, false}) {
        std::vector<double> c;
        std::vector<double> p;
        for (int r = 0; r < runs; ++r) {
            if (cold) {
                kel_bench::DropFromCache(packed);
            } else {
                ReadTake(packed);
            }
            c.push_back(gb / ReadTake(packed));
            if (cold) {
                kel_bench::DropFromCache(raw);
            } else {
                ReadTake(raw);
            }
            p.push_back(gb / ReadTake(raw));
        }
        std::printf("%-52s %7.3f GB/s  vs %-30s %7.3f GB/s  ratio %5.2f\n",
                    cold ? "read + verify compressed, from disk" : "read + verify compressed, warm", Median(c),
                    "raw take", Median(p), Median(c) / Median(p));
    }
    // Playback: a consumer that uses every byte of each frame, with the next
    // atom decoded ahead while it works, against the same reader decoding
    // each atom only when asked for it.
    {
        std::vector<double> ahead;
        std::vector<double> inline_;
        std::vector<double> raw_;
        ReadTake(packed, true);
        for (int r = 0; r < runs; ++r) {
            ahead.push_back(gb / ReadTake(packed, true, true));
            inline_.push_back(gb / ReadTake(packed, true, false));
        }
        ReadTake(raw, true);
        for (int r = 0; r < runs; ++r) {
            raw_.push_back(gb / ReadTake(raw, true));
        }
        std::printf("%-52s %7.3f GB/s  vs %-30s %7.3f GB/s  ratio %5.2f\n",
                    "play compressed, consumer sums every byte, warm", Median(ahead), "decoding only when asked",
                    Median(inline_), Median(ahead) / Median(inline_));
        std::printf("%-52s %7.3f GB/s  vs %-30s %7.3f GB/s  ratio %5.2f\n",
                    "play compressed, consumer sums every byte, warm", Median(ahead), "raw take", Median(raw_),
                    Median(ahead) / Median(raw_));
    }
    const double openPacked = OpenTake(packed);
    const double openRaw = OpenTake(raw);
    std::printf("%-52s %7.3f ms    vs %-30s %7.3f ms    ratio %5.2f\n", "open compressed take", openPacked * 1e3,
                "raw take", openRaw * 1e3, openRaw / openPacked);
    fs::remove_all(dir);
    return 0;
}
