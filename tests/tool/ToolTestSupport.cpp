#include "ToolTestSupport.h"

#include <KEL/DataTypeStreamInfo.h>
#include <KEL/PurposeGuids.h>
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

std::string FilterJson(const std::string& className, const std::string& name, const std::string& params) {
    return R"({"class": ")" + className + R"(", "name": ")" + name + R"(", "params": {)" + params + "}}";
}

std::string CamerasJson(std::uint32_t streams, std::uint32_t frames, std::uint32_t width, std::uint32_t height) {
    return FilterJson("SyntheticCaptureSource", "cams",
                      R"("Streams": )" + std::to_string(streams) + R"(, "Frames": )" + std::to_string(frames) +
                          R"(, "Width": )" + std::to_string(width) + R"(, "Height": )" + std::to_string(height));
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

void ExpectSameStreams(KEL::ReadKEL2File& expected, KEL::ReadKEL2File& actual, const std::vector<std::uint16_t>& ids,
                       bool thumbnail) {
    const auto infoGuid = KEL::DataTypeStreamInfo::TheTypeGuid();
    std::vector<std::uint16_t> actualIds(static_cast<std::size_t>(actual.GetNumStreams()));
    for (std::size_t i = 0; i < actualIds.size(); ++i) {
        actualIds[i] = actual.GetStreamId(static_cast<int>(i));
    }
    ASSERT_EQ(actualIds, ids);
    for (const std::uint16_t id : ids) {
        ASSERT_EQ(actual.GetNumFrames(id), expected.GetNumFrames(id));
        for (std::uint32_t f = 0; f < expected.GetNumFrames(id); ++f) {
            const auto a = expected.GetFrameAtom(id, f);
            const auto b = actual.GetFrameAtom(id, f);
            ASSERT_TRUE(a && b) << "stream " << id << " frame " << f;
            const auto info = KEL::LayerCast<KEL::DataTypeStreamInfo>(b->GetDataLayerByType(infoGuid, false));
            EXPECT_EQ(info != nullptr, f == 0) << "stream information belongs in the first atom only";
            EXPECT_TRUE(!info || info->GetNumFrames() == actual.GetNumFrames(id));
            EXPECT_EQ(b->RemoveDataLayers(KEL::PurposeGuid_THUMBNAIL, KEL::DataTypeTextureRGBA::TheTypeGuid()),
                      thumbnail && f == 0 ? 1U : 0U);
            a->RemoveDataLayers(infoGuid);
            b->RemoveDataLayers(infoGuid);
            std::string why;
            EXPECT_TRUE(kel_test::AtomsEqual(*a, *b, &why)) << "stream " << id << " frame " << f << ": " << why;
        }
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
    EXPECT_TRUE(exitCode != 2 || run.out.empty()) << run.out;
    for (const auto& [path, bytes] : before) {
        EXPECT_EQ(kel_test::ReadFileBytes(path), bytes) << path;
    }
    return run;
}

}  // namespace kel_tool_test
