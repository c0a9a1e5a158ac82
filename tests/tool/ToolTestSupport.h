#pragma once

// Runs the built `kel` executable in a child process and captures what it
// prints, for the end-to-end tests of the tool; reads back what it writes.

#include <KEL/ReadKEL2File.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "container/ContainerFiles.h"
#include "support/TestSupport.h"

namespace kel_tool_test {

struct KelRun {
    int exitCode = -1;
    std::string out;
    std::string err;
};

// `kel` with `args` started in `cwd`, its standard output and error going to
// files there. A non-zero `fileSizeLimit` (bytes) caps the size of every file
// it writes (RLIMIT_FSIZE): writes beyond fail as on a full disk. Unless
// Wait() reaped it, the child is killed (SIGKILL) and reaped when the object
// goes away, so that a test failing half-way leaves no `kel` running.
class KelChild {
public:
    KelChild(const std::vector<std::string>& args, const std::string& cwd, std::uint64_t fileSizeLimit = 0);
    ~KelChild();
    KelChild(const KelChild&) = delete;
    KelChild& operator=(const KelChild&) = delete;

    int Pid() const { return pid_; }
    // Waits for the child to end: its exit code (-1 when it did not exit
    // normally) and what it printed.
    KelRun Wait();

private:
    std::filesystem::path cwd_;
    int pid_ = -1;
};

// A graph file for `kel run`: synthetic cameras "cams" (`streams` cameras,
// `frames` frames of `width`x`height` images) feeding a filter "rec" of
// class `target` with the JSON members `params` as its parameters; `rest`
// adds further members to the graph object.
std::string GraphJson(std::uint32_t streams, std::uint32_t frames, std::uint32_t width, std::uint32_t height,
                      const std::string& target, const std::string& params, const std::string& rest = "");

// Records a synthetic capture with `kel run`: `streams` cameras, `frames`
// frames of `width`x`height` images, written by TargetKEL2FileWriter to
// `path` (thumbnail as asked, no XML). Fails the calling test on error.
void RecordSynthetic(const std::string& path, std::uint32_t streams, std::uint32_t frames, bool thumbnail = false,
                     std::uint32_t width = 32, std::uint32_t height = 24);

// The image in a PNG file as RGBA, decoded by libpng (empty when the file
// is not a valid PNG).
struct PngImage {
    std::uint32_t width = 0;
    std::uint32_t height = 0;
    std::vector<std::uint8_t> rgba;
};
PngImage ReadPng(const std::string& path);

// Writes `text` to `path`; the text of the file at `path`.
inline void WriteText(const std::string& path, const std::string& text) {
    kel_test::WriteFileBytes(path, {text.begin(), text.end()});
}
inline std::string ReadText(const std::string& path) {
    const auto bytes = kel_test::ReadFileBytes(path);
    return {bytes.begin(), bytes.end()};
}

// Passes when `text` contains every one of `fragments`; a failure names the
// first it lacks and shows the text.
testing::AssertionResult Contains(const std::string& text, const std::vector<std::string>& fragments);

// A scratch working directory per test, removed afterwards, that `Kel` runs
// the tool in (relative paths in arguments are inside it).
class KelToolTest : public testing::Test {
protected:
    KelRun Kel(const std::vector<std::string>& args, std::uint64_t fileSizeLimit = 0) const {
        return KelChild(args, dir.Path().string(), fileSizeLimit).Wait();
    }
    // Runs `kel` expecting it to succeed (exit code 0).
    KelRun KelOk(const std::vector<std::string>& args) const {
        KelRun run = Kel(args);
        EXPECT_EQ(run.exitCode, 0) << run.out << run.err;
        return run;
    }
    std::string File(const std::string& name) const { return dir.File(name); }
    bool Exists(const std::string& name) const { return std::filesystem::exists(dir.File(name)); }
    // Runs `kel` expecting it to fail: the exit code is `exitCode`, standard
    // error contains `errFragment`, standard output is empty for a usage
    // error (code 2), and every file that was in the directory is unchanged.
    KelRun KelFails(const std::vector<std::string>& args, int exitCode, const std::string& errFragment) const;

    kel_test::TempDir dir;
};

}  // namespace kel_tool_test
