// `kel info`, `kel verify` and `kel thumbnail` on files written by the
// plugin's writers.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <functional>
#include <nlohmann/json.hpp>
#include <set>

#include "ToolTestSupport.h"
#include "container/ContainerFormat.h"

namespace {

using kel_tool_test::Contains;
using kel_tool_test::RecordSynthetic;
using KelInfo = kel_tool_test::KelToolTest;
using KelVerify = kel_tool_test::KelToolTest;
using namespace nlohmann::literals;

// Each member of `expected` has its value in `actual`.
void ExpectFields(const nlohmann::json& actual, const nlohmann::json& expected) {
    for (const auto& [key, value] : expected.items()) {
        EXPECT_EQ(actual[key], value) << key;
    }
}

// `info` describes one file in full, a directory file by file in path order
// as each on its own (other files skipped), as JSON and as tables.
// `thumbnail` writes the stored thumbnail when there is one, else one made
// from the first frame (512x128 halved); a stream or an output path that is
// not there fails.
TEST_F(KelInfo, DescribesAFileOrEveryFileOfADirectoryAndKelThumbnailWritesTheirThumbnails) {
    RecordSynthetic(File("set/a.kel"), 1, 3, /*thumbnail=*/false, 512, 128);
    RecordSynthetic(File("set/b.kel"), 2, 5, /*thumbnail=*/true, 64, 32);
    kel_tool_test::WriteText(File("set/notes.txt"), "not a container");
    const auto json = [&](const std::string& path) {
        const auto run = KelOk({"info", "--json", path});
        return nlohmann::json::parse(run.out);
    };
    const auto info = json("set/b.kel");
    ExpectFields(info, R"({"ok": true, "atoms": 10, "frames": 5, "hasThumbnail": true})"_json);
    EXPECT_EQ(info["fileSize"], kel_test::FileSize(File("set/b.kel")));
    EXPECT_EQ(info["damage"]["indexUsed"], true);
    EXPECT_EQ(info["damage"]["damaged"], false);
    ASSERT_EQ(info["streams"].size(), 2U);
    for (std::size_t i = 0; i < 2; ++i) {
        const auto& s = info["streams"][i];
        ExpectFields(s, {{"id", i}, {"name", "Camera " + std::to_string(i)}, {"frames", 5}, {"firstFrameNr", 0}});
        ExpectFields(s, R"({"lastFrameNr": 4, "thumbnail": {"width": 64, "height": 32}})"_json);
        // Five frames at 30 fps: the last is stamped 4/30 s after the first.
        EXPECT_EQ(s["lastTimeStamp"].get<std::int64_t>() - s["firstTimeStamp"].get<std::int64_t>(), 133333);
        std::set<std::string> kinds;
        for (const auto& l : s["firstAtomLayers"]) {
            kinds.insert(l["type"].get<std::string>() + "/" + l["purpose"].get<std::string>());
        }
        EXPECT_EQ(kinds,
                  (std::set<std::string>{"TextureRGBA/PRIMARY_COLOR", "TextureRGBA/THUMBNAIL", "Mesh/DYNAMIC",
                                         "CameraParams/CAMERA_PRIMARY", "StreamInfo/STATIC", "RecordingInfo/STATIC",
                                         "StaticInfo/STATIC", "Binary/STATIC", "CylinderCrop/CROP"}));
    }
    EXPECT_EQ(json("set")["files"], nlohmann::json::array({json("set/a.kel"), info}));
    // Times in seconds from the file's first atom, the creation as a date,
    // frames missing from each stream's time line counted.
    EXPECT_TRUE(Contains(Kel({"info", "set/a.kel"}).out,
                         {"thumbnail: no", "3 in 1 stream(s), 3 playable frame(s)", "created:   20", " UTC\n",
                          "missing", "time: 0.000 s .. 0.067 s after the file's first atom"}));
    EXPECT_EQ(info["streams"][0]["missingFrames"], 0);
    KelFails({"thumbnail", "set/a.kel", "-o", "thumb.png", "--stream", "7"}, 1, "has no stream 7");
    KelFails({"thumbnail", "set/a.kel", "-o", "missing/thumb.png"}, 1, "cannot create 'missing/thumb.png'");
    EXPECT_FALSE(Exists("thumb.png"));
    EXPECT_TRUE(
        Contains(KelOk({"thumbnail", "set/b.kel", "-o", "stored.png", "--stream", "1"}).out, {"stored in the file"}));
    auto png = kel_tool_test::ReadPng(File("stored.png"));
    EXPECT_EQ(std::pair(png.width, png.height), std::pair(64U, 32U));
    // Camera 1's colour bars start with the second bar colour (yellow).
    ASSERT_GE(png.rgba.size(), 4U);
    EXPECT_EQ(std::vector(png.rgba.begin(), png.rgba.begin() + 4), (std::vector<std::uint8_t>{255, 255, 0, 255}));
    const auto made = KelOk({"thumbnail", "set/a.kel", "-o", "made.png"});
    EXPECT_TRUE(Contains(made.out, {"made from the first frame"}));
    png = kel_tool_test::ReadPng(File("made.png"));
    EXPECT_EQ(std::pair(png.width, png.height), std::pair(256U, 64U));
}

// A FIFO would block an open that waits for a writer: every command refuses
// it at once, as it refuses text and missing files.
TEST_F(KelInfo, UnopenableFilesFailWithTheirNameAndTheReason) {
    kel_tool_test::WriteText(File("bogus.kel"), "definitely not a container file");
    ASSERT_EQ(::mkfifo(File("fifo.kel").c_str(), 0600), 0);
    for (const std::string name : {"bogus.kel", "absent.kel", "fifo.kel"}) {
        const auto info = nlohmann::json::parse(KelFails({"info", "--json", name}, 1, "cannot open '" + name).out);
        EXPECT_TRUE(info["ok"] == false && !info["error"].get<std::string>().empty()) << info;
    }
    EXPECT_EQ(Kel({"verify", "fifo.kel"}).exitCode, 1);
    EXPECT_EQ(Kel({"copy", "fifo.kel", "out.kel"}).exitCode, 1);
    EXPECT_FALSE(Exists("out.kel"));
    // One line per failure, naming the path and what it is; several paths
    // at once, each said for itself.
    for (const auto& [args, line] : std::vector<std::pair<std::vector<std::string>, std::string>>{
             {{"info", "absent.kel"}, "kel: error: cannot open 'absent.kel': No such file or directory\n"},
             {{"copy", "absent.kel", "out.kel"}, "kel: error: cannot open 'absent.kel': No such file or directory\n"},
             {{"run", "."}, "kel: error: '.' is a directory, not a graph file\n"}}) {
        const auto run = Kel(args);
        EXPECT_EQ(run.exitCode, 1);
        EXPECT_EQ(run.err, line);
    }
    RecordSynthetic(File("one.kel"), 1, 2);
    const auto both = Kel({"info", "one.kel", "absent.kel", "one.kel"});
    EXPECT_EQ(both.exitCode, 1);
    const auto first = both.out.find("one.kel\n");
    EXPECT_TRUE(first == 0 && both.out.find("\none.kel\n", first + 1) != std::string::npos) << both.out;
    EXPECT_TRUE(Contains(both.err, {"cannot open 'absent.kel'"}));
}

// One recording damaged in each way files get damaged: `verify` gives each
// file its verdict, says how many atoms a reader would recover, and exits 0
// only when every file is intact.
TEST_F(KelVerify, VerdictRecoverableAtomsAndExitCodeFollowTheDamage) {
    RecordSynthetic(File("ok.kel"), 2, 4, false, 64, 64);
    const auto size = kel_test::FileSize(File("ok.kel"));
    const auto reader = kel_test::OpenContainer(File("ok.kel"));
    const std::uint64_t recordsEnd =
        KEL::container::kFirstRecordOffset + reader->GetStoredBytes(0) + reader->GetStoredBytes(1);
    // Name, damage, verdict and the atoms a reader recovers.
    const std::vector<std::tuple<std::string, std::function<void(const std::string&)>, std::string, int>> damages{
        {"flipped.kel", [&](const std::string& p) { kel_test::FlipByte(p, size / 2); }, "DAMAGED", 7},
        {"unclosed.kel", [&](const std::string& p) { kel_test::TruncateFile(p, recordsEnd); }, "NOT CLOSED", 8},
        {"cut.kel", [&](const std::string& p) { kel_test::TruncateFile(p, recordsEnd - 100); }, "DAMAGED", 7},
        {"headless.kel", [](const std::string& p) { kel_test::ZeroRange(p, 0, 64); }, "DAMAGED", 8},
        {"text.kel", [](const std::string& p) { kel_tool_test::WriteText(p, "not a container"); }, "UNREADABLE", 0}};
    std::vector<std::string> args{"verify", "--json"};
    for (const auto& [name, damage, verdict, recoverable] : damages) {
        std::filesystem::copy_file(File("ok.kel"), File(name));
        damage(File(name));
        args.push_back(name);
    }
    const auto ok = KelOk({"verify", "ok.kel"});
    EXPECT_TRUE(Contains(ok.out, {"ok.kel: OK"}));
    const auto one = nlohmann::json::parse(Kel({"verify", "--json", "ok.kel"}).out);
    EXPECT_TRUE(one.is_array() && one.size() == 1U) << one;
    const auto run = Kel(args);
    EXPECT_EQ(run.exitCode, 1);
    args.erase(args.begin() + 1);
    const auto text = Kel(args);
    EXPECT_EQ(text.exitCode, 1);
    EXPECT_TRUE(Contains(text.out, {"a reader would recover 7 atom(s)"}));
    const auto reports = nlohmann::json::parse(run.out);
    ASSERT_EQ(reports.size(), damages.size());
    for (std::size_t i = 0; i < damages.size(); ++i) {
        const auto& [name, damage, verdict, recoverable] = damages[i];
        ExpectFields(reports[i],
                     {{"path", name}, {"verdict", verdict}, {"intact", false}, {"recoverableAtoms", recoverable}});
        EXPECT_EQ(reports[i]["openError"] != "", verdict == "UNREADABLE") << name;
        EXPECT_EQ(reports[i].size(), reports[0].size()) << name << ": one shape for every file";
        EXPECT_TRUE(Contains(text.out, {name + ": " + verdict + "\n"}));
    }
}

}  // namespace
