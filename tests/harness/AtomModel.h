#pragma once

// An in-memory model of atoms that knows nothing of the container's
// encoding: each layer is a plain record of the values its getters return.
// Property tests, the crash and fault harnesses and the differential fuzzer
// generate models, build real atoms from them, write those, and compare what
// a reader returns with the model value by value and byte by byte.

#include <KEL/Atom.h>
#include <KelCommon/Guid.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kel_harness {

enum class LayerKind : std::uint8_t {
    kStreamInfo,
    kRecordingInfo,
    kStaticInfo,
    kBinary,
    kCameraParams,
    kCylinderCrop,
    kTextureRGBA,
    kMesh,
    kOpaque,
};
inline constexpr int kNumLayerKinds = 9;

// One layer as plain values. Which members a kind uses:
//   StreamInfo     ints {numFrames}, reals {frameRate}, texts {name}
//   RecordingInfo  ints {startTime}, texts {device, description}
//   StaticInfo     texts {key0, value0, key1, value1, ...} (keys distinct)
//   Binary         texts {name}, blobs {data}
//   CameraParams   ints {width, height}, reals {fx, fy, cx, cy, pose[16], distortion...}
//   CylinderCrop   reals {centerX, centerZ, radius, minY, maxY}
//   TextureRGBA    ints {width, height}, blobs {pixels (width * height * 4 bytes)}
//   Mesh           blobs {vertices, indices, texCoords}
//   Opaque         type, blobs {fields, blob0, blob1, ...}
struct ModelLayer {
    LayerKind kind = LayerKind::kBinary;
    KelCommon::Guid type;  // only for Opaque
    KelCommon::Guid purpose;
    std::uint16_t version = 0;
    std::vector<std::int64_t> ints;
    std::vector<double> reals;
    std::vector<std::string> texts;
    std::vector<std::vector<std::uint8_t>> blobs;
};

struct ModelAtom {
    std::uint16_t stream = 0;
    std::uint32_t frame = 0;
    std::int64_t timeStamp = 0;
    std::vector<ModelLayer> layers;

    std::uint64_t PayloadBytes() const;
};

// A real atom carrying the model's values.
KEL::AtomPtr BuildAtom(const ModelAtom& model);

// Empty when `atom` holds exactly the model's stream, frame, time stamp and
// layers (same order, kinds, purposes, versions, values, bytes); otherwise
// what differs first. Reals are compared bit for bit.
std::optional<std::string> DifferenceFrom(const ModelAtom& model, const KEL::Atom& atom);

// The choices a generator makes, from whatever source of randomness drives
// it (a seeded engine, RapidCheck, a fuzzer's input).
class Entropy {
public:
    virtual ~Entropy() = default;
    // A number in [0, bound]; a source that has run dry returns 0.
    virtual std::uint64_t Below(std::uint64_t bound) = 0;

    bool Chance(std::uint64_t outOf) { return Below(outOf - 1) == 0; }
    std::uint64_t Bits64() { return Below(~0ULL); }
};

// A seeded engine: the same seed makes the same choices.
class SeededEntropy final : public Entropy {
public:
    explicit SeededEntropy(std::uint64_t seed) : state_(seed * 0x9E3779B97F4A7C15ULL + 1) {}
    std::uint64_t Below(std::uint64_t bound) override {
        // splitmix64
        std::uint64_t z = (state_ += 0x9E3779B97F4A7C15ULL);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
        z ^= z >> 31;
        return bound == ~0ULL ? z : z % (bound + 1);
    }

private:
    std::uint64_t state_;
};

// Limits of a generated sequence.
struct GenerationLimits {
    std::size_t maxAtoms = 24;
    std::size_t maxLayers = 12;
    // Payload sizes are biased toward small and alignment-boundary sizes;
    // one blob in this many may be large (up to maxLargeBlob bytes).
    std::uint64_t largeBlobOneIn = 40;
    std::size_t maxLargeBlob = std::size_t{3} << 20;
    // No blob is larger than this.
    std::size_t maxBlob = std::size_t{64} << 20;
};

// Atoms with stream ids from a few streams (and sometimes any id), frame
// numbers with gaps, interleaved streams, time stamps anywhere in the 64-bit
// range, 0 to maxLayers layers of every kind, and payload sizes from 0 bytes
// to a few MiB. (stream, frame) pairs are distinct.
std::vector<ModelAtom> GenerateAtoms(Entropy& entropy, const GenerationLimits& limits = {});

// A payload size drawn with the bias described above.
std::size_t GenerateBlobSize(Entropy& entropy, const GenerationLimits& limits);

// A readable one-line description ("stream 3 frame 7, 4 layers, 1234 bytes").
std::string Describe(const ModelAtom& model);

}  // namespace kel_harness
