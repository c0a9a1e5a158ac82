#pragma once

// Helpers shared by the tests: scratch directories, atoms with real layers,
// file corruption, and log capture assertions.

#include <KEL/Atom.h>
#include <KEL/DataTypeCameraParams.h>
#include <KEL/DataTypeMesh.h>
#include <KEL/DataTypeStreamInfo.h>
#include <KEL/DataTypeTextureRGBA.h>
#include <KelCommon/SharedBuffer.h>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace kel_test {

// A fresh directory under the system's temporary directory, removed (with
// everything in it) when the object goes away.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::filesystem::path& Path() const noexcept { return path_; }
    std::string File(const std::string& name) const { return (path_ / name).string(); }

private:
    std::filesystem::path path_;
};

// Deterministic pseudo-random bytes (the same seed gives the same bytes).
KelCommon::SharedBuffer PatternBuffer(std::size_t size, std::uint32_t seed);

// An RGBA texture of the given size filled with PatternBuffer bytes.
std::shared_ptr<KEL::DataTypeTextureRGBA> MakeTexture(std::uint32_t width, std::uint32_t height, std::uint32_t seed,
                                                      const KelCommon::Guid& purpose = {});
// A small mesh (a fan of `triangles` triangles) with texture coordinates.
std::shared_ptr<KEL::DataTypeMesh> MakeMesh(std::uint32_t triangles, std::uint32_t seed);
// Camera parameters of the given version with values derived from `seed`.
std::shared_ptr<KEL::DataTypeCameraParams> MakeCamera(std::uint16_t version, std::uint32_t seed);

// A "captured frame": stream id, frame number and time stamp set, with a
// texture, a mesh and version-2 camera parameters.
std::shared_ptr<KEL::Atom> MakeFrameAtom(std::uint16_t stream, std::uint32_t frame, std::uint32_t width = 16,
                                         std::uint32_t height = 8);
// A stream's first atom as a writer would store it: a frame atom plus
// stream information, recording information, static information, a binary
// attachment, a cylinder crop and version-1 camera parameters. With `frame`,
// the same stream-level layers on that frame's atom.
std::shared_ptr<KEL::Atom> MakeFirstAtom(std::uint16_t stream, std::uint32_t numFrames, std::uint32_t width = 16,
                                         std::uint32_t height = 8, std::uint32_t frame = 0);

// True when both atoms have the same stream id, frame number, time stamp and
// layers (same order, same content). On difference, `why` says what differs.
bool AtomsEqual(const KEL::Atom& a, const KEL::Atom& b, std::string* why = nullptr);

// Runs `body` in a forked child and returns its exit code (-1 when the child
// did not exit normally). Resource limits and identities set there die with
// the child. With `unprivileged`, the child first drops to the user and group
// nobody (65534) when the tests run as root, so that file permissions apply
// to it; its files must then be reachable by everyone.
int RunInChild(const std::function<int()>& body, bool unprivileged = false);

// The number in the environment variable `name`, or `fallback` when it is
// not set (for the generated tests' run lengths and seeds).
std::uint64_t EnvNumber(const char* name, std::uint64_t fallback);

// File damage helpers.
std::vector<std::uint8_t> ReadFileBytes(const std::string& path);
void WriteFileBytes(const std::string& path, const std::vector<std::uint8_t>& bytes);
void FlipByte(const std::string& path, std::uint64_t offset, std::uint8_t mask = 0x01);
void ZeroRange(const std::string& path, std::uint64_t offset, std::uint64_t length);
void TruncateFile(const std::string& path, std::uint64_t size);
std::uint64_t FileSize(const std::string& path);

}  // namespace kel_test
