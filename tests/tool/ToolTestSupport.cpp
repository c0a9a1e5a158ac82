#include "ToolTestSupport.h"

#include <KEL/DataTypeStreamInfo.h>
#include <fcntl.h>
#include <png.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <map>
#include <sstream>

namespace kel_tool_test {

namespace {

int ExitCodeOf(int status) { return WIFEXITED(status) ? WEXITSTATUS(status) : -1; }

// Starts `kel` with `args` in `cwd`, its standard output and error going to
// the files `out` and `err` (/dev/null when empty) and every file it writes
// capped at `fileSizeLimit` bytes (no cap when 0); returns its process id.
pid_t Spawn(const std::vector<std::string>& args, const std::string& cwd, const std::string& out,
            const std::string& err, std::uint64_t fileSizeLimit) {
    std::vector<std::string> argv{KEL_TOOL_BINARY};
    argv.insert(argv.end(), args.begin(), args.end());
    std::vector<char*> raw;
    for (auto& a : argv) {
        raw.push_back(a.data());
    }
    raw.push_back(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        const rlimit limit{fileSizeLimit, fileSizeLimit};
        const auto openOutput = [](const std::string& path) {
            return open(path.empty() ? "/dev/null" : path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        };
        if (dup2(open("/dev/null", O_RDONLY), STDIN_FILENO) < 0 || dup2(openOutput(out), STDOUT_FILENO) < 0 ||
            dup2(openOutput(err), STDERR_FILENO) < 0 || chdir(cwd.c_str()) != 0 ||
            (fileSizeLimit != 0 && setrlimit(RLIMIT_FSIZE, &limit) != 0)) {
            _exit(127);
        }
        execv(raw[0], raw.data());
        _exit(127);
    }
    return pid;
}

}  // namespace

KelRun RunKel(const std::vector<std::string>& args, const std::string& cwd, std::uint64_t fileSizeLimit) {
    const std::string outFile = (std::filesystem::path(cwd) / ".kel-stdout").string();
    const std::string errFile = (std::filesystem::path(cwd) / ".kel-stderr").string();
    int status = 0;
    const pid_t pid = Spawn(args, cwd, outFile, errFile, fileSizeLimit);
    const bool exited = pid > 0 && waitpid(pid, &status, 0) == pid;
    const KelRun run{exited ? ExitCodeOf(status) : -1, ReadText(outFile), ReadText(errFile)};
    std::filesystem::remove(outFile);
    std::filesystem::remove(errFile);
    return run;
}

KelChild::KelChild(const std::vector<std::string>& args, const std::string& cwd) : pid_(Spawn(args, cwd, "", "", 0)) {}

KelChild::~KelChild() {
    if (pid_ > 0) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
}

int KelChild::Wait() {
    int status = 0;
    const bool reaped = pid_ > 0 && waitpid(pid_, &status, 0) == pid_;
    pid_ = -1;
    return reaped ? ExitCodeOf(status) : -1;
}

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

std::string ReadText(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

void WriteText(const std::string& path, const std::string& text) {
    std::ofstream out(path, std::ios::binary);
    out << text;
    ASSERT_TRUE(out.good()) << path;
}

std::string FilterJson(const std::string& className, const std::string& name, const std::string& params) {
    return R"({"class": ")" + className + R"(", "name": ")" + name + R"(", "params": {)" + params + "}}";
}

std::string CamerasJson(std::uint32_t streams, std::uint32_t frames, std::uint32_t width, std::uint32_t height) {
    std::ostringstream params;
    params << R"("Streams": )" << streams << R"(, "Frames": )" << frames << R"(, "Width": )" << width
           << R"(, "Height": )" << height;
    return FilterJson("SyntheticCaptureSource", "cams", params.str());
}

std::string GraphJson(const std::vector<std::string>& filters, const std::string& rest) {
    std::string json = R"({"filters": [)";
    for (const auto& filter : filters) {
        json += (&filter == &filters.front() ? "" : ", ") + filter;
    }
    return json + "]" + (rest.empty() ? "" : ", " + rest) + "}";
}

void RecordSynthetic(const std::string& path, std::uint32_t streams, std::uint32_t frames, bool thumbnail,
                     std::uint32_t width, std::uint32_t height) {
    const std::filesystem::path dir = std::filesystem::path(path).parent_path();
    std::filesystem::create_directories(dir);
    const std::string graph = (dir / ".record-graph.json").string();
    WriteText(graph, GraphJson({CamerasJson(streams, frames, width, height),
                                FilterJson("TargetKEL2FileWriter", "rec",
                                           R"("Write XML": false, "Enable Recording": true, )"
                                           R"("Create thumbnail for first frame": )" +
                                               std::string(thumbnail ? "true" : "false"))}));
    const KelRun run = RunKel({"run", "-q", graph, "--set", "rec.KEL File Path=" + path}, dir.string());
    ASSERT_EQ(run.exitCode, 0) << run.err;
    std::filesystem::remove(graph);
}

std::shared_ptr<KEL::ReadKEL2File> Open(const std::string& path) {
    auto reader = std::make_shared<KEL::ReadKEL2File>(path.c_str());
    EXPECT_EQ(reader->Initialize(), KEL::KEL_OK) << path << ": " << reader->GetLastError();
    return reader;
}

std::vector<std::uint16_t> StreamIds(KEL::ReadKEL2File& reader) {
    std::vector<std::uint16_t> ids;
    for (int i = 0; i < reader.GetNumStreams(); ++i) {
        ids.push_back(reader.GetStreamId(i));
    }
    return ids;
}

void ExpectSameStream(KEL::ReadKEL2File& expected, std::uint16_t stream, KEL::ReadKEL2File& actual,
                      std::uint16_t actualStream) {
    const auto infoGuid = KEL::DataTypeStreamInfo::TheTypeGuid();
    ASSERT_EQ(actual.GetNumFrames(actualStream), expected.GetNumFrames(stream));
    for (std::uint32_t f = 0; f < expected.GetNumFrames(stream); ++f) {
        const auto a = expected.GetFrameAtom(stream, f);
        const auto b = actual.GetFrameAtom(actualStream, f);
        ASSERT_TRUE(a && b) << "frame " << f;
        const auto info = KEL::LayerCast<KEL::DataTypeStreamInfo>(b->GetDataLayerByType(infoGuid, false));
        EXPECT_EQ(info != nullptr, f == 0) << "stream information belongs in the first atom only";
        if (info && f == 0) {
            EXPECT_EQ(info->GetNumFrames(), actual.GetNumFrames(actualStream));
        }
        a->RemoveDataLayers(infoGuid);
        b->RemoveDataLayers(infoGuid);
        b->SetStreamId(stream);
        std::string why;
        EXPECT_TRUE(kel_test::AtomsEqual(*a, *b, &why)) << "stream " << stream << " frame " << f << ": " << why;
    }
}

void ExpectSameStreams(KEL::ReadKEL2File& expected, KEL::ReadKEL2File& actual, const std::vector<std::uint16_t>& ids) {
    ASSERT_EQ(StreamIds(actual), ids);
    for (const std::uint16_t id : ids) {
        ExpectSameStream(expected, id, actual, id);
    }
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
