#include "support/TestSupport.h"

#include <KEL/DataTypeBinary.h>
#include <KEL/DataTypeCylinderCrop.h>
#include <KEL/DataTypeRecordingInfo.h>
#include <KEL/DataTypeStaticInfo.h>
#include <grp.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <stdexcept>

namespace kel_test {

TempDir::TempDir() {
    std::string templ = (std::filesystem::temp_directory_path() / "kel-test-XXXXXX").string();
    if (mkdtemp(templ.data()) == nullptr) {
        throw std::runtime_error("mkdtemp failed");
    }
    path_ = templ;
}

TempDir::~TempDir() {
    std::error_code ec;
    // Restore permissions a test may have taken away, then remove.
    for (auto it = std::filesystem::recursive_directory_iterator(path_, ec);
         !ec && it != std::filesystem::recursive_directory_iterator(); it.increment(ec)) {
        std::filesystem::permissions(it->path(), std::filesystem::perms::owner_all, std::filesystem::perm_options::add,
                                     ec);
    }
    std::filesystem::remove_all(path_, ec);
}

int RunInChild(const std::function<int()>& body, bool unprivileged) {
    const pid_t pid = fork();
    if (pid == 0) {
        constexpr uid_t kNobody = 65534;
        if (unprivileged && geteuid() == 0 &&
            (setgroups(0, nullptr) != 0 || setresgid(kNobody, kNobody, kNobody) != 0 ||
             setresuid(kNobody, kNobody, kNobody) != 0)) {
            _exit(125);
        }
        _exit(body());
    }
    int status = 0;
    if (pid < 0 || waitpid(pid, &status, 0) != pid || !WIFEXITED(status)) {
        return -1;
    }
    return WEXITSTATUS(status);
}

std::uint64_t EnvNumber(const char* name, std::uint64_t fallback) {
    const char* value = std::getenv(name);  // NOLINT(concurrency-mt-unsafe): tests set no variables
    return value != nullptr ? std::strtoull(value, nullptr, 10) : fallback;
}

KelCommon::SharedBuffer PatternBuffer(std::size_t size, std::uint32_t seed) {
    std::vector<std::uint8_t> bytes(size);
    std::uint64_t x = 0x9E3779B97F4A7C15ULL ^ seed;
    for (std::size_t i = 0; i < size; ++i) {
        x ^= x << 13;
        x ^= x >> 7;
        x ^= x << 17;
        bytes[i] = static_cast<std::uint8_t>(x);
    }
    return KelCommon::SharedBuffer::FromVector(std::move(bytes));
}

std::shared_ptr<KEL::DataTypeTextureRGBA> MakeTexture(std::uint32_t width, std::uint32_t height, std::uint32_t seed,
                                                      const KelCommon::Guid& purpose) {
    return std::make_shared<KEL::DataTypeTextureRGBA>(
        width, height, PatternBuffer(static_cast<std::size_t>(width) * height * 4, seed), purpose);
}

std::shared_ptr<KEL::DataTypeMesh> MakeMesh(std::uint32_t triangles, std::uint32_t seed) {
    std::vector<float> vertices;
    std::vector<std::uint32_t> indices;
    std::vector<float> uvs;
    const std::uint32_t n = triangles + 2;
    for (std::uint32_t i = 0; i < n; ++i) {
        vertices.insert(vertices.end(),
                        {static_cast<float>(i), static_cast<float>(seed), static_cast<float>(i * seed)});
        uvs.insert(uvs.end(), {static_cast<float>(i) / static_cast<float>(n), 0.5F});
    }
    for (std::uint32_t t = 0; t < triangles; ++t) {
        indices.insert(indices.end(), {0, t + 1, t + 2});
    }
    auto asBuffer = [](const auto& v) { return KelCommon::SharedBuffer::Copy(v.data(), v.size() * sizeof(v[0])); };
    return std::make_shared<KEL::DataTypeMesh>(asBuffer(vertices), asBuffer(indices), asBuffer(uvs));
}

std::shared_ptr<KEL::DataTypeCameraParams> MakeCamera(std::uint16_t version, std::uint32_t seed) {
    auto cam = std::make_shared<KEL::DataTypeCameraParams>(version);
    cam->width = 640;
    cam->height = 480;
    cam->fx = 500.0 + seed;
    cam->fy = 501.0 + seed;
    cam->cx = 320.5;
    cam->cy = 240.25;
    cam->distortion = {0.1, -0.01, 0.001 * seed};
    cam->pose[3] = seed;
    return cam;
}

std::shared_ptr<KEL::Atom> MakeFrameAtom(std::uint16_t stream, std::uint32_t frame, std::uint32_t width,
                                         std::uint32_t height) {
    auto atom = std::make_shared<KEL::Atom>(stream, frame, 1'000'000LL + frame * 33'333LL);
    const std::uint32_t seed = stream * 100'003U + frame;
    atom->AddDataLayer(MakeTexture(width, height, seed), true);
    atom->AddDataLayer(MakeMesh(4, seed), true);
    atom->AddDataLayer(MakeCamera(2, seed), true);
    return atom;
}

std::shared_ptr<KEL::Atom> MakeFirstAtom(std::uint16_t stream, std::uint32_t numFrames, std::uint32_t width,
                                         std::uint32_t height, std::uint32_t frame) {
    auto atom = MakeFrameAtom(stream, frame, width, height);
    atom->RemoveDataLayers(KEL::DataTypeCameraParams::TheTypeGuid());
    atom->AddDataLayer(std::make_shared<KEL::DataTypeStreamInfo>(numFrames, 30.0, "camera" + std::to_string(stream)),
                       true);
    atom->AddDataLayer(std::make_shared<KEL::DataTypeRecordingInfo>(1'700'000'000'000'000LL, "rig-a", "test take"),
                       true);
    atom->AddDataLayer(std::make_shared<KEL::DataTypeStaticInfo>(std::map<std::string, std::string>{{"rig", "A"}}),
                       true);
    atom->AddDataLayer(std::make_shared<KEL::DataTypeBinary>("calib.bin", PatternBuffer(64, stream)), true);
    atom->AddDataLayer(std::make_shared<KEL::DataTypeCylinderCrop>(0.0, 0.0, 1.5, 0.0, 2.2), true);
    atom->AddDataLayer(MakeCamera(1, stream), true);
    return atom;
}

bool AtomsEqual(const KEL::Atom& a, const KEL::Atom& b, std::string* why) {
    const auto la = a.GetAllDataLayers();
    const auto lb = b.GetAllDataLayers();
    std::string difference;
    if (a.GetStreamId() != b.GetStreamId() || a.GetFrameNr() != b.GetFrameNr()) {
        difference = "stream/frame " + std::to_string(a.GetStreamId()) + "/" + std::to_string(a.GetFrameNr()) + " vs " +
                     std::to_string(b.GetStreamId()) + "/" + std::to_string(b.GetFrameNr());
    } else if (a.GetTimeStamp() != b.GetTimeStamp()) {
        difference = "time stamp differs";
    } else if (la.size() != lb.size()) {
        difference = "layer count " + std::to_string(la.size()) + " vs " + std::to_string(lb.size());
    }
    for (std::size_t i = 0; difference.empty() && i < la.size(); ++i) {
        if (!la[i]->ContentEquals(*lb[i])) {
            difference = "layer " + std::to_string(i) + " (" + la[i]->TypeName() + ") differs";
        }
    }
    if (why != nullptr) {
        *why = difference;
    }
    return difference.empty();
}

std::vector<std::uint8_t> ReadFileBytes(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void WriteFileBytes(const std::string& path, const std::vector<std::uint8_t>& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

void FlipByte(const std::string& path, std::uint64_t offset, std::uint8_t mask) {
    auto bytes = ReadFileBytes(path);
    bytes.at(offset) ^= mask;
    WriteFileBytes(path, bytes);
}

void ZeroRange(const std::string& path, std::uint64_t offset, std::uint64_t length) {
    auto bytes = ReadFileBytes(path);
    for (std::uint64_t i = offset; i < offset + length && i < bytes.size(); ++i) {
        bytes[i] = 0;
    }
    WriteFileBytes(path, bytes);
}

void TruncateFile(const std::string& path, std::uint64_t size) {
    if (truncate(path.c_str(), static_cast<off_t>(size)) != 0) {
        throw std::runtime_error("truncate failed: " + path);
    }
}

std::uint64_t FileSize(const std::string& path) { return std::filesystem::file_size(path); }

}  // namespace kel_test
