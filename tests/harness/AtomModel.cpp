#include "harness/AtomModel.h"

#include <KEL/DataTypeBinary.h>
#include <KEL/DataTypeCameraParams.h>
#include <KEL/DataTypeCylinderCrop.h>
#include <KEL/DataTypeMesh.h>
#include <KEL/DataTypeOpaque.h>
#include <KEL/DataTypeRecordingInfo.h>
#include <KEL/DataTypeStaticInfo.h>
#include <KEL/DataTypeStreamInfo.h>
#include <KEL/DataTypeTextureRGBA.h>
#include <KEL/KELPurposeGuids.h>

#include <array>
#include <bit>
#include <cstring>
#include <map>
#include <set>

namespace kel_harness {

namespace {

using KelCommon::SharedBuffer;

SharedBuffer Buffer(const std::vector<std::uint8_t>& bytes) { return SharedBuffer::Copy(bytes.data(), bytes.size()); }

std::vector<std::uint8_t> Bytes(const SharedBuffer& buffer) { return {buffer.data(), buffer.data() + buffer.size()}; }

bool SameBits(double a, double b) { return std::memcmp(&a, &b, sizeof a) == 0; }

const char* KindName(LayerKind kind) {
    static constexpr std::array<const char*, kNumLayerKinds> names{"StreamInfo",  "RecordingInfo", "StaticInfo",
                                                                   "Binary",      "CameraParams",  "CylinderCrop",
                                                                   "TextureRGBA", "Mesh",          "Opaque"};
    return names[static_cast<std::size_t>(kind)];
}

KEL::Atom::LayerPtr BuildLayer(const ModelLayer& m) {
    KEL::Atom::LayerPtr layer;
    switch (m.kind) {
        case LayerKind::kStreamInfo:
            layer = std::make_shared<KEL::DataTypeStreamInfo>(static_cast<std::uint32_t>(m.ints[0]), m.reals[0],
                                                              m.texts[0], m.purpose);
            break;
        case LayerKind::kRecordingInfo:
            layer = std::make_shared<KEL::DataTypeRecordingInfo>(m.ints[0], m.texts[0], m.texts[1], m.purpose);
            break;
        case LayerKind::kStaticInfo: {
            std::map<std::string, std::string> entries;
            for (std::size_t i = 0; i + 1 < m.texts.size(); i += 2) {
                entries[m.texts[i]] = m.texts[i + 1];
            }
            layer = std::make_shared<KEL::DataTypeStaticInfo>(entries, m.purpose);
            break;
        }
        case LayerKind::kBinary:
            layer = std::make_shared<KEL::DataTypeBinary>(m.texts[0], Buffer(m.blobs[0]), m.purpose);
            break;
        case LayerKind::kCameraParams: {
            auto camera = std::make_shared<KEL::DataTypeCameraParams>(m.version, m.purpose);
            camera->width = static_cast<std::uint32_t>(m.ints[0]);
            camera->height = static_cast<std::uint32_t>(m.ints[1]);
            camera->fx = m.reals[0];
            camera->fy = m.reals[1];
            camera->cx = m.reals[2];
            camera->cy = m.reals[3];
            std::copy(m.reals.begin() + 4, m.reals.begin() + 20, camera->pose.begin());
            camera->distortion.assign(m.reals.begin() + 20, m.reals.end());
            layer = camera;
            break;
        }
        case LayerKind::kCylinderCrop:
            layer = std::make_shared<KEL::DataTypeCylinderCrop>(m.reals[0], m.reals[1], m.reals[2], m.reals[3],
                                                                m.reals[4], m.purpose);
            break;
        case LayerKind::kTextureRGBA:
            layer = std::make_shared<KEL::DataTypeTextureRGBA>(static_cast<std::uint32_t>(m.ints[0]),
                                                               static_cast<std::uint32_t>(m.ints[1]),
                                                               Buffer(m.blobs[0]), m.purpose);
            break;
        case LayerKind::kMesh:
            layer = std::make_shared<KEL::DataTypeMesh>(Buffer(m.blobs[0]), Buffer(m.blobs[1]), Buffer(m.blobs[2]),
                                                        m.purpose);
            break;
        case LayerKind::kOpaque: {
            std::vector<SharedBuffer> blobs;
            for (std::size_t i = 1; i < m.blobs.size(); ++i) {
                blobs.push_back(Buffer(m.blobs[i]));
            }
            layer = std::make_shared<KEL::DataTypeOpaque>(m.type, m.purpose, m.version, m.blobs[0], std::move(blobs));
            break;
        }
    }
    layer->SetVersion(m.version);
    return layer;
}

// The model of a real layer, read through its getters only.
std::optional<ModelLayer> ModelOf(const KEL::Atom::LayerPtr& layer) {
    ModelLayer m;
    m.purpose = layer->GetPurposeGuid();
    m.version = layer->GetVersion();
    if (auto l = KEL::LayerCast<KEL::DataTypeStreamInfo>(layer)) {
        m.kind = LayerKind::kStreamInfo;
        m.ints = {l->GetNumFrames()};
        m.reals = {l->GetFrameRate()};
        m.texts = {l->GetName()};
    } else if (auto r = KEL::LayerCast<KEL::DataTypeRecordingInfo>(layer)) {
        m.kind = LayerKind::kRecordingInfo;
        m.ints = {r->GetStartTime()};
        m.texts = {r->GetDevice(), r->GetDescription()};
    } else if (auto s = KEL::LayerCast<KEL::DataTypeStaticInfo>(layer)) {
        m.kind = LayerKind::kStaticInfo;
        for (const auto& [key, value] : s->GetEntries()) {
            m.texts.push_back(key);
            m.texts.push_back(value);
        }
    } else if (auto b = KEL::LayerCast<KEL::DataTypeBinary>(layer)) {
        m.kind = LayerKind::kBinary;
        m.texts = {b->GetName()};
        m.blobs = {Bytes(b->GetData())};
    } else if (auto c = KEL::LayerCast<KEL::DataTypeCameraParams>(layer)) {
        m.kind = LayerKind::kCameraParams;
        m.ints = {c->width, c->height};
        m.reals = {c->fx, c->fy, c->cx, c->cy};
        m.reals.insert(m.reals.end(), c->pose.begin(), c->pose.end());
        m.reals.insert(m.reals.end(), c->distortion.begin(), c->distortion.end());
    } else if (auto y = KEL::LayerCast<KEL::DataTypeCylinderCrop>(layer)) {
        m.kind = LayerKind::kCylinderCrop;
        m.reals = {y->centerX, y->centerZ, y->radius, y->minY, y->maxY};
    } else if (auto t = KEL::LayerCast<KEL::DataTypeTextureRGBA>(layer)) {
        m.kind = LayerKind::kTextureRGBA;
        m.ints = {t->GetWidth(), t->GetHeight()};
        m.blobs = {Bytes(t->GetPixels())};
    } else if (auto h = KEL::LayerCast<KEL::DataTypeMesh>(layer)) {
        m.kind = LayerKind::kMesh;
        m.blobs = {Bytes(h->GetVertices()), Bytes(h->GetIndices()), Bytes(h->GetTexCoords())};
    } else if (auto o = std::dynamic_pointer_cast<KEL::DataTypeOpaque>(layer)) {
        m.kind = LayerKind::kOpaque;
        m.type = layer->GetTypeGuid();
        m.blobs.push_back(o->GetFields());
        for (const auto& blob : o->GetBlobs()) {
            m.blobs.push_back(Bytes(blob));
        }
    } else {
        return std::nullopt;
    }
    return m;
}

std::optional<std::string> LayerDifference(const ModelLayer& expected, const ModelLayer& actual) {
    if (expected.kind != actual.kind) {
        return std::string("kind ") + KindName(actual.kind) + " instead of " + KindName(expected.kind);
    }
    if (expected.type != actual.type || expected.purpose != actual.purpose) {
        return std::string("type or purpose GUID");
    }
    if (expected.version != actual.version) {
        return "version " + std::to_string(actual.version) + " instead of " + std::to_string(expected.version);
    }
    if (expected.ints != actual.ints) {
        return std::string("integer fields");
    }
    if (expected.reals.size() != actual.reals.size() ||
        !std::equal(expected.reals.begin(), expected.reals.end(), actual.reals.begin(), SameBits)) {
        return std::string("real-valued fields");
    }
    if (expected.texts != actual.texts) {
        return std::string("text fields");
    }
    if (expected.blobs.size() != actual.blobs.size()) {
        return std::string("number of buffers");
    }
    for (std::size_t i = 0; i < expected.blobs.size(); ++i) {
        if (expected.blobs[i] != actual.blobs[i]) {
            return "bytes of buffer " + std::to_string(i) + " (" + std::to_string(actual.blobs[i].size()) +
                   " bytes, expected " + std::to_string(expected.blobs[i].size()) + ")";
        }
    }
    return std::nullopt;
}

// ---- generation ----

std::vector<std::uint8_t> RandomBytes(Entropy& e, std::size_t size) {
    std::vector<std::uint8_t> bytes(size);
    // A cheap generator seeded from the entropy source fills large buffers;
    // the content's variety matters less than the sizes'. Half the buffers
    // carry few random bits on a slow ramp, as images and meshes do, so that
    // a serializer that compresses finds both what shrinks and what does not.
    std::uint64_t x = e.Bits64() | 1;
    const bool smooth = e.Chance(2);
    for (std::size_t i = 0; i < size; ++i) {
        x ^= x << 13;
        x ^= x >> 7;
        x ^= x << 17;
        bytes[i] = smooth ? static_cast<std::uint8_t>((i >> 9) + (x & 3)) : static_cast<std::uint8_t>(x);
    }
    return bytes;
}

std::string RandomText(Entropy& e) {
    const std::size_t n = e.Chance(4) ? 0 : e.Below(e.Chance(8) ? 300 : 12);
    std::string s(n, '\0');
    for (auto& c : s) {
        c = static_cast<char>(e.Chance(3) ? e.Below(255) : 'a' + e.Below(25));
    }
    return s;
}

// Zero, a value with a short binary fraction, or any bit pattern, infinities
// and NaNs included.
double RandomReal(Entropy& e) {
    const std::uint64_t choice = e.Below(3);
    const std::uint64_t bits = choice == 0 ? 0 : e.Bits64();
    return choice == 1 ? static_cast<double>(static_cast<std::int64_t>(bits >> 20)) / 1024.0
                       : std::bit_cast<double>(bits);
}

KelCommon::Guid RandomGuid(Entropy& e) {
    std::array<std::uint8_t, KelCommon::Guid::kSize> bytes{};
    for (auto& b : bytes) {
        b = static_cast<std::uint8_t>(e.Below(255));
    }
    return KelCommon::Guid(bytes);
}

KelCommon::Guid RandomPurpose(Entropy& e) {
    switch (e.Below(3)) {
        case 0:
            return {};
        case 1: {
            static const auto aliases = KEL::KELPurposeGuids::All();
            return aliases.empty() ? KelCommon::Guid{} : aliases[e.Below(aliases.size() - 1)].first;
        }
        default:
            return RandomGuid(e);
    }
}

ModelLayer GenerateLayer(Entropy& e, const GenerationLimits& limits) {
    ModelLayer m;
    m.kind = static_cast<LayerKind>(e.Below(kNumLayerKinds - 1));
    m.purpose = RandomPurpose(e);
    m.version = static_cast<std::uint16_t>(e.Chance(2) ? e.Below(3) : e.Below(0xFFFF));
    switch (m.kind) {
        case LayerKind::kStreamInfo:
            m.ints = {static_cast<std::int64_t>(e.Below(0xFFFFFFFF))};
            m.reals = {RandomReal(e)};
            m.texts = {RandomText(e)};
            break;
        case LayerKind::kRecordingInfo:
            m.ints = {static_cast<std::int64_t>(e.Bits64())};
            m.texts = {RandomText(e), RandomText(e)};
            break;
        case LayerKind::kStaticInfo: {
            std::set<std::string> keys;
            for (std::uint64_t i = e.Below(5); i > 0; --i) {
                keys.insert(RandomText(e));
            }
            for (const auto& key : keys) {
                m.texts.push_back(key);
                m.texts.push_back(RandomText(e));
            }
            break;
        }
        case LayerKind::kBinary:
            m.texts = {RandomText(e)};
            m.blobs = {RandomBytes(e, GenerateBlobSize(e, limits))};
            break;
        case LayerKind::kCameraParams:
            m.ints = {static_cast<std::int64_t>(e.Below(0xFFFFFFFF)), static_cast<std::int64_t>(e.Below(0xFFFFFFFF))};
            for (std::uint64_t i = 0, n = 20 + e.Below(8); i < n; ++i) {
                m.reals.push_back(RandomReal(e));
            }
            break;
        case LayerKind::kCylinderCrop:
            for (int i = 0; i < 5; ++i) {
                m.reals.push_back(RandomReal(e));
            }
            break;
        case LayerKind::kTextureRGBA: {
            const std::size_t pixels = GenerateBlobSize(e, limits) / 4;
            const std::size_t width = pixels == 0 ? e.Below(3) : 1 + e.Below(std::min<std::size_t>(pixels, 2048) - 1);
            const std::size_t height = width == 0 ? 0 : pixels / width;
            m.ints = {static_cast<std::int64_t>(width), static_cast<std::int64_t>(height)};
            m.blobs = {RandomBytes(e, width * height * 4)};
            break;
        }
        case LayerKind::kMesh: {
            const std::size_t vertices = GenerateBlobSize(e, limits) / 12;
            const std::size_t triangles = GenerateBlobSize(e, limits) / 12;
            m.blobs = {RandomBytes(e, vertices * 12), RandomBytes(e, triangles * 12),
                       RandomBytes(e, e.Chance(2) ? vertices * 8 : 0)};
            break;
        }
        case LayerKind::kOpaque:
            m.type = RandomGuid(e);
            m.blobs.push_back(RandomBytes(e, e.Below(40)));
            for (std::uint64_t i = e.Below(3); i > 0; --i) {
                m.blobs.push_back(RandomBytes(e, GenerateBlobSize(e, limits)));
            }
            break;
    }
    return m;
}

}  // namespace

std::uint64_t ModelAtom::PayloadBytes() const {
    std::uint64_t total = 0;
    for (const auto& layer : layers) {
        for (const auto& blob : layer.blobs) {
            total += blob.size();
        }
    }
    return total;
}

KEL::AtomPtr BuildAtom(const ModelAtom& model) {
    auto atom = std::make_shared<KEL::Atom>(model.stream, model.frame, model.timeStamp);
    for (const auto& layer : model.layers) {
        atom->AddDataLayer(BuildLayer(layer), true);
    }
    return atom;
}

std::optional<std::string> DifferenceFrom(const ModelAtom& model, const KEL::Atom& atom) {
    if (atom.GetStreamId() != model.stream || atom.GetFrameNr() != model.frame) {
        return "stream " + std::to_string(atom.GetStreamId()) + " frame " + std::to_string(atom.GetFrameNr()) +
               " instead of " + Describe(model);
    }
    if (atom.GetTimeStamp() != model.timeStamp) {
        return Describe(model) + ": time stamp " + std::to_string(atom.GetTimeStamp());
    }
    const auto layers = atom.GetAllDataLayers();
    if (layers.size() != model.layers.size()) {
        return Describe(model) + ": " + std::to_string(layers.size()) + " layers";
    }
    for (std::size_t i = 0; i < layers.size(); ++i) {
        const auto actual = ModelOf(layers[i]);
        if (!actual) {
            return Describe(model) + ": layer " + std::to_string(i) + " of an unknown class";
        }
        if (auto why = LayerDifference(model.layers[i], *actual)) {
            return Describe(model) + ": layer " + std::to_string(i) + " (" + KindName(model.layers[i].kind) +
                   "): " + *why;
        }
    }
    return std::nullopt;
}

std::size_t GenerateBlobSize(Entropy& e, const GenerationLimits& limits) {
    static constexpr std::array<std::size_t, 14> kBoundaries{0,    1,    7,    8,     63,    64,    65,
                                                             4095, 4096, 4097, 65535, 65536, 65537, 262144};
    std::size_t size = 0;
    if (limits.largeBlobOneIn != 0 && e.Chance(limits.largeBlobOneIn)) {
        size = e.Below(limits.maxLargeBlob);
    } else if (e.Chance(4)) {
        size = kBoundaries[e.Below(kBoundaries.size() - 1)];
    } else {
        size = e.Below(e.Chance(4) ? 4096 : 300);
    }
    return std::min(size, limits.maxBlob);
}

std::vector<ModelAtom> GenerateAtoms(Entropy& e, const GenerationLimits& limits) {
    static constexpr std::array<std::uint16_t, 5> kStreams{0, 1, 2, 7, 0xFFFF};
    std::vector<ModelAtom> atoms(e.Below(limits.maxAtoms));
    std::map<std::uint16_t, std::set<std::uint32_t>> used;
    std::map<std::uint16_t, std::uint32_t> next;
    std::int64_t clock = static_cast<std::int64_t>(e.Bits64() >> 2) - (std::int64_t{1} << 60);
    for (auto& atom : atoms) {
        atom.stream =
            e.Chance(8) ? static_cast<std::uint16_t>(e.Below(0xFFFF)) : kStreams[e.Below(kStreams.size() - 1)];
        auto& frames = used[atom.stream];
        std::uint32_t frame = next[atom.stream];
        switch (e.Below(7)) {
            case 0:  // a gap
                frame += static_cast<std::uint32_t>(e.Below(1000));
                break;
            case 1:  // anywhere, also before frames already written
                frame = static_cast<std::uint32_t>(e.Below(0xFFFFFFFF));
                break;
            default:
                break;
        }
        while (frames.count(frame) != 0) {
            ++frame;
        }
        frames.insert(frame);
        next[atom.stream] = frame + 1;
        atom.frame = frame;
        clock += static_cast<std::int64_t>(e.Below(100000));
        atom.timeStamp = e.Chance(10) ? static_cast<std::int64_t>(e.Bits64()) : clock;
        for (std::uint64_t i = e.Below(limits.maxLayers); i > 0; --i) {
            atom.layers.push_back(GenerateLayer(e, limits));
        }
    }
    return atoms;
}

std::string Describe(const ModelAtom& model) {
    return "stream " + std::to_string(model.stream) + " frame " + std::to_string(model.frame) + " (" +
           std::to_string(model.layers.size()) + " layers, " + std::to_string(model.PayloadBytes()) + " bytes)";
}

}  // namespace kel_harness
