// Writes the starting corpus of the reader fuzzer into the directory given as
// the only argument: small containers produced by the serializer itself (so
// they follow the format), each as a whole-file input (mode byte 0) and its
// first atom record's payload as a sealed-record input (mode byte 3).

#include <KEL/Atom.h>
#include <KEL/DataTypeBinary.h>
#include <KEL/DataTypeCameraParams.h>
#include <KEL/DataTypeMesh.h>
#include <KEL/DataTypeOpaque.h>
#include <KEL/DataTypeStreamInfo.h>
#include <KEL/DataTypeTextureRGBA.h>
#include <KEL/SerializeToKel.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "container/ContainerFormat.h"

namespace {

KelCommon::SharedBuffer Bytes(std::size_t n, std::uint8_t seed) {
    std::vector<std::uint8_t> v(n);
    for (std::size_t i = 0; i < n; ++i) {
        v[i] = static_cast<std::uint8_t>(seed + i * 7);
    }
    return KelCommon::SharedBuffer::FromVector(std::move(v));
}

KEL::AtomPtr MakeAtom(std::uint16_t stream, std::uint32_t frame) {
    auto atom = std::make_shared<KEL::Atom>(stream, frame, 1000 + frame);
    atom->AddDataLayer(std::make_shared<KEL::DataTypeTextureRGBA>(2, 1, Bytes(8, static_cast<std::uint8_t>(frame))),
                       true);
    if (frame == 0) {
        atom->AddDataLayer(std::make_shared<KEL::DataTypeStreamInfo>(3, 30.0, "s"), true);
        atom->AddDataLayer(std::make_shared<KEL::DataTypeBinary>("b", Bytes(5, 1)), true);
        atom->AddDataLayer(std::make_shared<KEL::DataTypeCameraParams>(1), true);
    } else {
        std::vector<float> vertices(9, 1.0F);
        std::vector<std::uint32_t> indices{0, 1, 2};
        atom->AddDataLayer(std::make_shared<KEL::DataTypeMesh>(
                               KelCommon::SharedBuffer::Copy(vertices.data(), vertices.size() * sizeof(float)),
                               KelCommon::SharedBuffer::Copy(indices.data(), indices.size() * 4)),
                           true);
    }
    return atom;
}

void WriteSeed(const std::string& path, std::uint8_t mode, const char* data, std::size_t size) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.put(static_cast<char>(mode));
    out.write(data, static_cast<std::streamsize>(size));
}

// Turns the container at `path` into fuzzer inputs next to it and removes it.
void ToSeeds(const std::string& path) {
    using namespace KEL::container;
    std::ifstream in(path, std::ios::binary);
    const std::vector<char> bytes{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    in.close();
    std::filesystem::remove(path);
    WriteSeed(path + ".file", 0, bytes.data(), bytes.size());
    const std::size_t payload = kFirstRecordOffset + kRecordHeaderSize;
    if (bytes.size() > payload) {
        const auto size = GetU64(reinterpret_cast<const std::uint8_t*>(bytes.data()) + kFirstRecordOffset + 8);
        if (size <= bytes.size() - payload) {
            WriteSeed(path + ".record", 3, bytes.data() + payload, size);
        }
    }
}

bool Write(const std::string& path, const std::vector<KEL::AtomPtr>& atoms, bool close) {
    std::vector<char> unclosed;
    {
        KEL::SerializeToKel writer(path.c_str(), true, KEL::CURRENT_VERSION, false);
        for (const auto& atom : atoms) {
            if (writer.SerializeAtom(atom) != KEL::KEL_OK) {
                return false;
            }
        }
        if (!close) {
            std::ifstream in(path, std::ios::binary);
            unclosed.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
        }
    }
    if (!close) {
        std::ofstream out(path, std::ios::binary | std::ios::trunc);
        out.write(unclosed.data(), static_cast<std::streamsize>(unclosed.size()));
    }
    ToSeeds(path);
    return true;
}

}  // namespace

// Inputs for the writer-and-reader fuzzer: it reads its choices from the
// input, so a few kilobytes of varied bytes start it with long sequences of
// atoms of many sizes instead of the empty sequence.
bool WriteChoiceSeeds(const std::filesystem::path& dir) {
    std::uint64_t x = 0x2545F4914F6CDD1DULL;
    for (int n = 0; n < 32; ++n) {
        std::vector<char> bytes(256 + 256 * static_cast<std::size_t>(n % 8));
        for (auto& b : bytes) {
            x ^= x << 13;
            x ^= x >> 7;
            x ^= x << 17;
            b = static_cast<char>(x);
        }
        std::ofstream out(dir / ("choices" + std::to_string(n)), std::ios::binary);
        out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        if (!out) {
            return false;
        }
    }
    return true;
}

int main(int argc, char** argv) {
    if (argc == 3 && std::string(argv[1]) == "--choices") {
        std::filesystem::create_directories(argv[2]);
        return WriteChoiceSeeds(argv[2]) ? 0 : 1;
    }
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s <corpus dir>\n       %s --choices <corpus dir>\n", argv[0], argv[0]);
        return 2;
    }
    const std::filesystem::path dir(argv[1]);
    std::filesystem::create_directories(dir);
    auto opaque = std::make_shared<KEL::Atom>(9, 0, 0);
    opaque->AddDataLayer(std::make_shared<KEL::DataTypeOpaque>(
                             KelCommon::Guid::FromHexString("0A1B2C3D-4E5F-4061-8293-A4B5C6D7E8F9"), KelCommon::Guid{},
                             3, std::vector<std::uint8_t>{1, 2, 3}, std::vector<KelCommon::SharedBuffer>{Bytes(3, 9)}),
                         true);
    const bool ok = Write((dir / "empty.kel").string(), {}, true) &&
                    Write((dir / "one.kel").string(), {MakeAtom(1, 0)}, true) &&
                    Write((dir / "two_streams.kel").string(),
                          {MakeAtom(1, 0), MakeAtom(2, 0), MakeAtom(1, 1), MakeAtom(2, 1)}, true) &&
                    Write((dir / "unclosed.kel").string(), {MakeAtom(1, 0), MakeAtom(1, 1)}, false) &&
                    Write((dir / "opaque.kel").string(), {opaque}, true);
    return ok ? 0 : 1;
}
