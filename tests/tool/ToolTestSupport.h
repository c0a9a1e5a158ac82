#pragma once

// Runs the built `kel` executable in a child process and captures what it
// prints, for the end-to-end tests of the tool.

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

// Runs `kel` with `args` (each passed as one argument, quoted for the
// shell) in the working directory `cwd`, and waits for it to finish. A
// non-zero `fileSizeLimit` (bytes, a multiple of 512) caps the size of every
// file it writes (RLIMIT_FSIZE): writes beyond fail as on a full disk.
KelRun RunKel(const std::vector<std::string>& args, const std::string& cwd, std::uint64_t fileSizeLimit = 0);

// Starts `kel` with `args` in `cwd` without waiting (output discarded);
// returns the child's process id.
int StartKel(const std::vector<std::string>& args, const std::string& cwd);
// Waits for a child started by StartKel and returns its exit code (-1 when
// it did not exit normally).
int WaitKel(int pid);

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

// Writes `text` to `path`.
void WriteText(const std::string& path, const std::string& text);

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
