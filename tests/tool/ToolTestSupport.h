#pragma once

// Runs the built `kel` executable in a child process and captures what it
// prints, for the end-to-end tests of the tool; reads back what it writes.

#include <KEL/ReadKEL2File.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "support/TestSupport.h"

namespace kel_tool_test {

struct KelRun {
    int exitCode = -1;
    std::string out;
    std::string err;
};

// Runs `kel` with `args` in the working directory `cwd` and waits for it to
// finish. A non-zero `fileSizeLimit` (bytes) caps the size of every file it
// writes (RLIMIT_FSIZE): writes beyond fail as on a full disk.
KelRun RunKel(const std::vector<std::string>& args, const std::string& cwd, std::uint64_t fileSizeLimit = 0);

// `kel` with `args` started in `cwd` without waiting (output discarded).
// Unless Wait() reaped it, the child is killed (SIGKILL) and reaped when the
// object goes away, so that a test failing half-way leaves no `kel` running.
class KelChild {
public:
    KelChild(const std::vector<std::string>& args, const std::string& cwd);
    ~KelChild();
    KelChild(const KelChild&) = delete;
    KelChild& operator=(const KelChild&) = delete;

    int Pid() const { return pid_; }
    // Waits for the child to end; its exit code, or -1 when it did not exit normally.
    int Wait();

private:
    int pid_ = -1;
};

// Pieces of graph files for `kel run`: a filter with the JSON text of its
// parameters; synthetic cameras named "cams"; a graph of `filters` (the
// first feeds the others) with `rest` as further members of the graph object.
std::string FilterJson(const std::string& className, const std::string& name, const std::string& params);
std::string CamerasJson(std::uint32_t streams, std::uint32_t frames, std::uint32_t width = 16,
                        std::uint32_t height = 16);
std::string GraphJson(const std::vector<std::string>& filters, const std::string& rest = "");

// Records a synthetic capture with `kel run`: `streams` cameras, `frames`
// frames of `width`x`height` images, written by TargetKEL2FileWriter to
// `path` (thumbnail as asked, no XML). Fails the calling test on error.
void RecordSynthetic(const std::string& path, std::uint32_t streams, std::uint32_t frames, bool thumbnail = false,
                     std::uint32_t width = 32, std::uint32_t height = 24);

// Opens the container at `path`, failing the calling test when it does not open.
std::shared_ptr<KEL::ReadKEL2File> Open(const std::string& path);

// Every atom of `stream` in `expected` is stored identically in `actual`
// under `actualStream`, apart from the stream information: a source hands
// its own (with the frame count it plays) to every stream it reads, so the
// written file carries that one in each stream's first atom.
void ExpectSameStream(KEL::ReadKEL2File& expected, std::uint16_t stream, KEL::ReadKEL2File& actual,
                      std::uint16_t actualStream);
// `actual` holds exactly the streams `ids` of `expected`, each stored unchanged.
void ExpectSameStreams(KEL::ReadKEL2File& expected, KEL::ReadKEL2File& actual, const std::vector<std::uint16_t>& ids);
std::vector<std::uint16_t> StreamIds(KEL::ReadKEL2File& reader);

// The image in a PNG file as RGBA, decoded by libpng (empty when the file
// is not a valid PNG).
struct PngImage {
    std::uint32_t width = 0;
    std::uint32_t height = 0;
    std::vector<std::uint8_t> rgba;
};
PngImage ReadPng(const std::string& path);

// Writes `text` to `path`; the text of the file at `path`.
void WriteText(const std::string& path, const std::string& text);
std::string ReadText(const std::string& path);

// A scratch working directory per test, removed afterwards, that `Kel` runs
// the tool in (relative paths in arguments are inside it).
class KelToolTest : public testing::Test {
protected:
    KelRun Kel(const std::vector<std::string>& args) const { return RunKel(args, Cwd()); }
    std::string Cwd() const { return dir.Path().string(); }
    std::string File(const std::string& name) const { return dir.File(name); }
    bool Exists(const std::string& name) const { return std::filesystem::exists(dir.File(name)); }
    // Runs `kel` expecting it to fail: the exit code is `exitCode`, standard
    // error contains `errFragment`, standard output is empty for a usage
    // error (code 2), and every file that was in the directory is unchanged.
    KelRun KelFails(const std::vector<std::string>& args, int exitCode, const std::string& errFragment) const;

    kel_test::TempDir dir;
};

}  // namespace kel_tool_test
