// Writes small, valid container files (and an unclosed one) into the
// directory given as the only argument: the starting corpus of the reader
// fuzzer, produced by the serializer itself so it follows the format.

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
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s <corpus dir>\n", argv[0]);
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
