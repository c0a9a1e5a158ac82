// Writes the starting corpus of the reader fuzzer into the directory given as
// the only argument: small containers of generated atoms (every layer kind)
// produced by the serializer itself, so that they follow the format, closed
// and left unclosed. Each becomes a whole-file input (mode byte 0) and its
// first atom record's payload a sealed-record input (mode byte 3).

#include <KEL/SerializeToKel.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "container/ContainerFormat.h"
#include "harness/AtomModel.h"

namespace {

void WriteSeed(const std::filesystem::path& path, std::uint8_t mode, const std::uint8_t* data, std::size_t size) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.put(static_cast<char>(mode));
    out.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
}

std::vector<std::uint8_t> ReadAll(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s <corpus dir>\n", argv[0]);
        return 2;
    }
    using namespace KEL::container;
    const std::filesystem::path dir(argv[1]);
    std::filesystem::create_directories(dir);
    const auto scratch = dir / "scratch.kel";
    for (std::uint64_t seed = 0; seed < 24; ++seed) {
        kel_harness::SeededEntropy entropy(seed);
        const auto atoms =
            kel_harness::GenerateAtoms(entropy, {.maxAtoms = 4, .maxLayers = 4, .largeBlobOneIn = 0, .maxBlob = 2048});
        std::vector<std::uint8_t> bytes;
        {
            KEL::SerializeToKel writer(scratch.c_str(), true, KEL::CURRENT_VERSION, false);
            for (const auto& model : atoms) {
                if (writer.SerializeAtom(kel_harness::BuildAtom(model)) != KEL::KEL_OK) {
                    return 1;
                }
            }
            // Odd seeds: the file as a writer that died before closing left it.
            if (seed % 2 == 1) {
                bytes = ReadAll(scratch);
            }
        }
        if (seed % 2 == 0) {
            bytes = ReadAll(scratch);
        }
        const std::string name = "seed" + std::to_string(seed);
        WriteSeed(dir / (name + ".file"), 0, bytes.data(), bytes.size());
        const std::size_t payload = kFirstRecordOffset + kRecordHeaderSize;
        if (bytes.size() > payload) {
            const std::uint64_t size = GetU64(bytes.data() + kFirstRecordOffset + 16);  // payload size
            if (size <= bytes.size() - payload) {
                WriteSeed(dir / (name + ".record"), 3, bytes.data() + payload, size);
            }
        }
    }
    std::filesystem::remove(scratch);
    return 0;
}
