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

using kel_tool_test::RecordSynthetic;
using KelInfo = kel_tool_test::KelToolTest;
using KelVerify = kel_tool_test::KelToolTest;
using KelThumbnail = kel_tool_test::KelToolTest;
using namespace nlohmann::literals;

// Each member of `expected` has its value in `actual`.
void ExpectFields(const nlohmann::json& actual, const nlohmann::json& expected) {
    for (const auto& [key, value] : expected.items()) {
        EXPECT_EQ(actual[key], value) << key;
    }
}

TEST_F(KelInfo, JsonDescribesStreamsFramesLayersAndThumbnail) {
    RecordSynthetic(File("rec.kel"), 2, 5, /*thumbnail=*/true, 64, 32);
    const auto run = Kel({"info", "--json", "rec.kel"});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    const auto info = nlohmann::json::parse(run.out);
    ExpectFields(info, R"({"ok": true, "atoms": 10, "frames": 5, "hasThumbnail": true})"_json);
    EXPECT_EQ(info["fileSize"], kel_test::FileSize(File("rec.kel")));
    EXPECT_EQ(info["damage"]["indexUsed"], true);
    ASSERT_EQ(info["streams"].size(), 2U);
    for (std::size_t i = 0; i < 2; ++i) {
        const auto& s = info["streams"][i];
        EXPECT_EQ(s["id"], i);
        EXPECT_EQ(s["name"], "Camera " + std::to_string(i));
        ExpectFields(
            s, R"({"frames": 5, "firstFrameNr": 0, "lastFrameNr": 4, "thumbnail": {"width": 64, "height": 32}})"_json);
        // Five frames at 30 fps: the last is stamped 4/30 s after the first.
        EXPECT_EQ(s["lastTimeStamp"].get<std::int64_t>() - s["firstTimeStamp"].get<std::int64_t>(), 133333);
        std::set<std::string> kinds;
        for (const auto& l : s["firstAtomLayers"]) {
            kinds.insert(l["type"].get<std::string>() + "/" + l["purpose"].get<std::string>());
        }
        for (const char* kind : {"TextureRGBA/PRIMARY_COLOR", "TextureRGBA/THUMBNAIL", "Mesh/DYNAMIC",
                                 "CameraParams/CAMERA_PRIMARY", "StreamInfo/STATIC"}) {
            EXPECT_TRUE(kinds.contains(kind)) << kind;
        }
    }
}

TEST_F(KelInfo, DirectorySummarisesEveryContainerFileAndTablesReportThumbnailAbsence) {
    RecordSynthetic(File("set/a.kel"), 1, 3);
    RecordSynthetic(File("set/b.kel"), 2, 4, true);
    kel_tool_test::WriteText(File("set/notes.txt"), "not a container");
    const auto run = Kel({"info", "--json", "set"});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    const auto info = nlohmann::json::parse(run.out);
    ASSERT_EQ(info["files"].size(), 2U);
    EXPECT_EQ(std::filesystem::path(info["files"][0]["path"].get<std::string>()).filename(), "a.kel");
    ExpectFields(info["files"][0], {{"atoms", 3}, {"hasThumbnail", false}});
    ExpectFields(info["files"][1], {{"atoms", 8}, {"hasThumbnail", true}});
    const auto table = Kel({"info", "set"});
    EXPECT_NE(table.out.find("2 container file(s)"), std::string::npos) << table.out;
    EXPECT_NE(table.out.find("11 atoms"), std::string::npos) << table.out;
    const auto single = Kel({"info", "set/a.kel"});
    EXPECT_NE(single.out.find("thumbnail: no"), std::string::npos) << single.out;
    EXPECT_NE(single.out.find("3 in 1 stream(s), 3 playable frame(s)"), std::string::npos) << single.out;
}

// A FIFO would block an open that waits for a writer: every command refuses
// it at once, as it refuses text and missing files.
TEST_F(KelInfo, UnopenableFilesFailWithTheirNameAndTheReason) {
    kel_tool_test::WriteText(File("bogus.kel"), "definitely not a container file");
    ASSERT_EQ(::mkfifo(File("fifo.kel").c_str(), 0600), 0);
    for (const std::string name : {"bogus.kel", "absent.kel", "fifo.kel"}) {
        const auto info = nlohmann::json::parse(KelFails({"info", "--json", name}, 1, "cannot open '" + name).out);
        EXPECT_EQ(info["ok"], false);
        EXPECT_FALSE(info["error"].get<std::string>().empty());
    }
    EXPECT_EQ(Kel({"verify", "fifo.kel"}).exitCode, 1);
    EXPECT_EQ(Kel({"copy", "fifo.kel", "out.kel"}).exitCode, 1);
    EXPECT_FALSE(Exists("out.kel"));
}

// One recording damaged in each way files get damaged: `verify` gives each
// file its verdict, says how many atoms a reader would recover, and exits 0
// only when every file is intact.
TEST_F(KelVerify, VerdictRecoverableAtomsAndExitCodeFollowTheDamage) {
    RecordSynthetic(File("ok.kel"), 2, 4, false, 64, 64);
    const auto size = kel_test::FileSize(File("ok.kel"));
    const auto reader = kel_tool_test::Open(File("ok.kel"));
    const std::uint64_t recordsEnd =
        KEL::container::kFirstRecordOffset + reader->GetStoredBytes(0) + reader->GetStoredBytes(1);
    struct Damage {
        std::string name;
        std::function<void(const std::string&)> damage;
        std::string verdict;
        int recoverable;
    };
    const std::vector<Damage> damages{
        {"flipped.kel", [&](const std::string& p) { kel_test::FlipByte(p, size / 2); }, "DAMAGED", 7},
        {"unclosed.kel", [&](const std::string& p) { kel_test::TruncateFile(p, recordsEnd); }, "NOT CLOSED", 8},
        {"cut.kel", [&](const std::string& p) { kel_test::TruncateFile(p, recordsEnd - 100); }, "DAMAGED", 7},
        {"headless.kel", [](const std::string& p) { kel_test::ZeroRange(p, 0, 64); }, "DAMAGED", 8},
        {"text.kel", [](const std::string& p) { kel_tool_test::WriteText(p, "not a container"); }, "UNREADABLE", 0}};
    std::vector<std::string> names;
    for (const auto& d : damages) {
        std::filesystem::copy_file(File("ok.kel"), File(d.name));
        d.damage(File(d.name));
        names.push_back(d.name);
    }
    const auto ok = Kel({"verify", "ok.kel"});
    EXPECT_EQ(ok.exitCode, 0) << ok.out << ok.err;
    EXPECT_NE(ok.out.find("ok.kel: OK"), std::string::npos) << ok.out;

    std::vector<std::string> args{"verify", "--json"};
    args.insert(args.end(), names.begin(), names.end());
    const auto run = Kel(args);
    EXPECT_EQ(run.exitCode, 1);
    const auto reports = nlohmann::json::parse(run.out);
    ASSERT_EQ(reports.size(), damages.size());
    for (std::size_t i = 0; i < damages.size(); ++i) {
        SCOPED_TRACE(damages[i].name);
        ExpectFields(reports[i], {{"path", damages[i].name},
                                  {"verdict", damages[i].verdict},
                                  {"intact", false},
                                  {"recoverableAtoms", damages[i].recoverable}});
        EXPECT_EQ(reports[i].contains("openError"), damages[i].verdict == "UNREADABLE");
    }
    args.erase(args.begin() + 1);
    const auto text = Kel(args);
    EXPECT_EQ(text.exitCode, 1);
    for (const auto& d : damages) {
        EXPECT_NE(text.out.find(d.name + ": " + d.verdict + "\n"), std::string::npos) << text.out;
    }
    EXPECT_NE(text.out.find("a reader would recover 7 atom(s)"), std::string::npos) << text.out;
}

TEST_F(KelThumbnail, WritesTheStoredThumbnailAsPng) {
    RecordSynthetic(File("rec.kel"), 2, 2, /*thumbnail=*/true, 64, 48);
    const auto run = Kel({"thumbnail", "rec.kel", "-o", "thumb.png", "--stream", "1"});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_NE(run.out.find("stored in the file"), std::string::npos) << run.out;
    const auto png = kel_tool_test::ReadPng(File("thumb.png"));
    EXPECT_EQ(png.width, 64U);
    EXPECT_EQ(png.height, 48U);
    // Camera 1's colour bars start with the second bar colour (yellow).
    ASSERT_GE(png.rgba.size(), 4U);
    EXPECT_EQ(std::vector<std::uint8_t>(png.rgba.begin(), png.rgba.begin() + 4),
              (std::vector<std::uint8_t>{255, 255, 0, 255}));
}

TEST_F(KelThumbnail, MakesOneFromTheFirstFrameWhenNoneIsStoredAndRefusesAnUnknownStream) {
    RecordSynthetic(File("rec.kel"), 1, 2, /*thumbnail=*/false, 512, 128);
    KelFails({"thumbnail", "rec.kel", "-o", "thumb.png", "--stream", "7"}, 1, "has no stream 7");
    EXPECT_FALSE(Exists("thumb.png"));
    const auto run = Kel({"thumbnail", "rec.kel", "-o", "thumb.png"});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_NE(run.out.find("made from the first frame"), std::string::npos) << run.out;
    const auto png = kel_tool_test::ReadPng(File("thumb.png"));
    EXPECT_EQ(png.width, 256U);
    EXPECT_EQ(png.height, 64U);
}

}  // namespace
