#include "ToolTestSupport.h"

#include <fcntl.h>
#include <png.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <map>

namespace kel_tool_test {

KelChild::KelChild(const std::vector<std::string>& args, const std::string& cwd, std::uint64_t fileSizeLimit)
    : cwd_(cwd) {
    std::vector<std::string> argv{KEL_TOOL_BINARY};
    argv.insert(argv.end(), args.begin(), args.end());
    std::vector<char*> raw(argv.size() + 1, nullptr);
    std::transform(argv.begin(), argv.end(), raw.begin(), [](std::string& a) { return a.data(); });
    const std::string out = (cwd_ / ".kel-stdout").string();
    const std::string err = (cwd_ / ".kel-stderr").string();
    pid_ = fork();
    if (pid_ == 0) {
        const rlimit limit{fileSizeLimit, fileSizeLimit};
        const int flags = O_WRONLY | O_CREAT | O_TRUNC;
        if (dup2(open("/dev/null", O_RDONLY), STDIN_FILENO) < 0 || dup2(open(out.c_str(), flags, 0600), 1) < 0 ||
            dup2(open(err.c_str(), flags, 0600), 2) < 0 || chdir(cwd.c_str()) != 0 ||
            (fileSizeLimit != 0 && setrlimit(RLIMIT_FSIZE, &limit) != 0)) {
            _exit(127);
        }
        execv(raw[0], raw.data());
        _exit(127);
    }
}

KelChild::~KelChild() {
    if (pid_ > 0) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
}

KelRun KelChild::Wait() {
    int status = 0;
    const bool exited = pid_ > 0 && waitpid(pid_, &status, 0) == pid_ && WIFEXITED(status);
    pid_ = -1;
    KelRun run{exited ? WEXITSTATUS(status) : -1, ReadText((cwd_ / ".kel-stdout").string()),
               ReadText((cwd_ / ".kel-stderr").string())};
    std::filesystem::remove(cwd_ / ".kel-stdout");
    std::filesystem::remove(cwd_ / ".kel-stderr");
    return run;
}

PngImage ReadPng(const std::string& path) {
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    std::vector<std::uint8_t> rgba;
    if (png_image_begin_read_from_file(&image, path.c_str()) != 0) {
        image.format = PNG_FORMAT_RGBA;
        rgba.resize(PNG_IMAGE_SIZE(image));
        if (png_image_finish_read(&image, nullptr, rgba.data(), 0, nullptr) != 0) {
            return {image.width, image.height, rgba};
        }
    }
    return {};
}

std::string GraphJson(std::uint32_t streams, std::uint32_t frames, std::uint32_t width, std::uint32_t height,
                      const std::string& target, const std::string& params, const std::string& rest) {
    const auto n = [](std::uint32_t v) { return std::to_string(v); };
    return R"({"filters": [{"class": "SyntheticCaptureSource", "name": "cams", "params": {"Streams": )" + n(streams) +
           R"(, "Frames": )" + n(frames) + R"(, "Width": )" + n(width) + R"(, "Height": )" + n(height) +
           R"(}}, {"class": ")" + target + R"(", "name": "rec", "params": {)" + params + "}}]" +
           (rest.empty() ? "" : ", " + rest) + "}";
}

void RecordSynthetic(const std::string& path, std::uint32_t streams, std::uint32_t frames, bool thumbnail,
                     std::uint32_t width, std::uint32_t height) {
    const std::filesystem::path dir = std::filesystem::path(path).parent_path();
    std::filesystem::create_directories(dir);
    const std::string graph = (dir / ".record-graph.json").string();
    WriteText(graph, GraphJson(streams, frames, width, height, "TargetKEL2FileWriter",
                               R"("Write XML": false, "Enable Recording": true, "Create thumbnail for first frame": )" +
                                   std::string(thumbnail ? "true" : "false")));
    const KelRun run = KelChild({"run", "-q", graph, "--set", "rec.KEL File Path=" + path}, dir.string()).Wait();
    ASSERT_EQ(run.exitCode, 0) << run.err;
    std::filesystem::remove(graph);
}

testing::AssertionResult Contains(const std::string& text, const std::vector<std::string>& fragments) {
    for (const auto& fragment : fragments) {
        if (text.find(fragment) == std::string::npos) {
            return testing::AssertionFailure() << "lacks \"" << fragment << "\" in:\n" << text;
        }
    }
    return testing::AssertionSuccess();
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
    EXPECT_TRUE(Contains(run.err, {errFragment}));
    EXPECT_TRUE(exitCode != 2 || run.out.empty()) << run.out;
    for (const auto& [path, bytes] : before) {
        EXPECT_EQ(kel_test::ReadFileBytes(path), bytes) << path;
    }
    return run;
}

}  // namespace kel_tool_test
