#include "ToolTestSupport.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <png.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

namespace kel_tool_test {

PngImage ReadPng(const std::string& path) {
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    PngImage png;
    if (png_image_begin_read_from_file(&image, path.c_str()) != 0) {
        image.format = PNG_FORMAT_RGBA;
        png.rgba.resize(PNG_IMAGE_SIZE(image));
        if (png_image_finish_read(&image, nullptr, png.rgba.data(), 0, nullptr) != 0) {
            png.width = image.width;
            png.height = image.height;
        }
    }
    return png;
}

namespace {

std::string ShellQuote(const std::string& text) {
    std::string quoted(1, '\'');
    for (char c : text) {
        if (c == '\'') {
            quoted.append("'\\''");
        } else {
            quoted.push_back(c);
        }
    }
    quoted.push_back('\'');
    return quoted;
}

std::string ReadText(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

}  // namespace

KelRun RunKel(const std::vector<std::string>& args, const std::string& cwd, std::uint64_t fileSizeLimit) {
    const std::filesystem::path outFile = std::filesystem::path(cwd) / ".kel-stdout";
    const std::filesystem::path errFile = std::filesystem::path(cwd) / ".kel-stderr";
    std::string command("cd ");
    command.append(ShellQuote(cwd)).append(" && ");
    if (fileSizeLimit != 0) {
        command.append("ulimit -f ").append(std::to_string(fileSizeLimit / 512)).append(" && ");
    }
    command.append(ShellQuote(KEL_TOOL_BINARY));
    for (const auto& arg : args) {
        command.append(" ").append(ShellQuote(arg));
    }
    command.append(" >").append(ShellQuote(outFile.string()));
    command.append(" 2>").append(ShellQuote(errFile.string())).append(" </dev/null");
    const int status = std::system(command.c_str());
    KelRun run;
    run.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    run.out = ReadText(outFile);
    run.err = ReadText(errFile);
    std::filesystem::remove(outFile);
    std::filesystem::remove(errFile);
    return run;
}

int StartKel(const std::vector<std::string>& args, const std::string& cwd) {
    std::vector<std::string> argv{KEL_TOOL_BINARY};
    argv.insert(argv.end(), args.begin(), args.end());
    const pid_t pid = fork();
    if (pid == 0) {
        if (chdir(cwd.c_str()) != 0) {
            _exit(127);
        }
        const int devNull = open("/dev/null", O_RDWR);
        dup2(devNull, STDIN_FILENO);
        dup2(devNull, STDOUT_FILENO);
        dup2(devNull, STDERR_FILENO);
        std::vector<char*> raw;
        for (auto& a : argv) {
            raw.push_back(a.data());
        }
        raw.push_back(nullptr);
        execv(raw[0], raw.data());
        _exit(127);
    }
    return pid;
}

int WaitKel(int pid) {
    int status = 0;
    if (waitpid(pid, &status, 0) != pid) {
        return -1;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

void WriteText(const std::string& path, const std::string& text) {
    std::ofstream out(path, std::ios::binary);
    out << text;
    ASSERT_TRUE(out.good()) << path;
}

void RecordSynthetic(const std::string& path, std::uint32_t streams, std::uint32_t frames, bool thumbnail,
                     std::uint32_t width, std::uint32_t height) {
    const std::filesystem::path dir = std::filesystem::path(path).parent_path();
    std::filesystem::create_directories(dir);
    const std::string graph = (dir / ".record-graph.json").string();
    std::ostringstream json;
    json << R"({"filters": [)"
         << R"({"class": "SyntheticCaptureSource", "name": "cams", "params": {"Streams": )" << streams
         << R"(, "Frames": )" << frames << R"(, "Width": )" << width << R"(, "Height": )" << height << "}},"
         << R"({"class": "TargetKEL2FileWriter", "name": "rec", "params": {"Write XML": false, )"
         << R"("Enable Recording": true, "Create thumbnail for first frame": )" << (thumbnail ? "true" : "false")
         << "}}]}";
    WriteText(graph, json.str());
    const KelRun run = RunKel({"run", "-q", graph, "--set", "rec.KEL File Path=" + path}, dir.string());
    ASSERT_EQ(run.exitCode, 0) << run.err;
    std::filesystem::remove(graph);
}

KelRun KelToolTest::KelFails(const std::vector<std::string>& args, int exitCode, const std::string& errFragment) const {
    std::map<std::string, std::vector<std::uint8_t>> before;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(dir.Path())) {
        if (entry.is_regular_file()) {
            before[entry.path().string()] = kel_test::ReadFileBytes(entry.path().string());
        }
    }
    KelRun run = Kel(args);
    EXPECT_EQ(run.exitCode, exitCode) << run.out << run.err;
    EXPECT_NE(run.err.find(errFragment), std::string::npos) << run.err;
    if (exitCode == 2) {
        EXPECT_EQ(run.out, "");
    }
    for (const auto& [path, bytes] : before) {
        EXPECT_EQ(kel_test::ReadFileBytes(path), bytes) << path;
    }
    return run;
}

}  // namespace kel_tool_test
