// `kel info`, `kel verify` and `kel thumbnail` on files written by the
// plugin's writers.

#include <gtest/gtest.h>
#include <png.h>
#include <sys/stat.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <set>

#include "ToolTestSupport.h"

namespace {

using kel_tool_test::RecordSynthetic;
using KelInfo = kel_tool_test::KelToolTest;
using KelVerify = kel_tool_test::KelToolTest;
using KelThumbnail = kel_tool_test::KelToolTest;
using kel_tool_test::PngImage;
using kel_tool_test::ReadPng;

TEST_F(KelInfo, JsonDescribesStreamsFramesLayersAndThumbnail) {
    RecordSynthetic(File("rec.kel"), 2, 5, /*thumbnail=*/true, 64, 32);
    const auto run = Kel({"info", "--json", "rec.kel"});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    const auto info = nlohmann::json::parse(run.out);
    EXPECT_EQ(info["ok"], true);
    EXPECT_EQ(info["atoms"], 10);
    EXPECT_EQ(info["frames"], 5);
    EXPECT_EQ(info["hasThumbnail"], true);
    EXPECT_EQ(info["fileSize"], kel_test::FileSize(File("rec.kel")));
    ASSERT_EQ(info["streams"].size(), 2U);
    for (std::size_t i = 0; i < 2; ++i) {
        const auto& s = info["streams"][i];
        EXPECT_EQ(s["id"], i);
        EXPECT_EQ(s["frames"], 5);
        EXPECT_EQ(s["firstFrameNr"], 0);
        EXPECT_EQ(s["lastFrameNr"], 4);
        EXPECT_EQ(s["name"], "Camera " + std::to_string(i));
        // Five frames at 30 fps: the last is stamped 4/30 s after the first.
        EXPECT_EQ(s["lastTimeStamp"].get<std::int64_t>() - s["firstTimeStamp"].get<std::int64_t>(), 133333);
        EXPECT_EQ(s["thumbnail"]["width"], 64);
        EXPECT_EQ(s["thumbnail"]["height"], 32);
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
    EXPECT_EQ(info["files"][0]["atoms"], 3);
    EXPECT_EQ(info["files"][1]["atoms"], 8);
    EXPECT_EQ(info["files"][1]["hasThumbnail"], true);

    const auto table = Kel({"info", "set"});
    ASSERT_EQ(table.exitCode, 0) << table.err;
    EXPECT_NE(table.out.find("2 container file(s)"), std::string::npos) << table.out;
    EXPECT_NE(table.out.find("11 atoms"), std::string::npos) << table.out;

    const auto single = Kel({"info", "set/a.kel"});
    ASSERT_EQ(single.exitCode, 0) << single.err;
    EXPECT_NE(single.out.find("thumbnail: no"), std::string::npos) << single.out;
    EXPECT_NE(single.out.find("3 in 1 stream(s), 3 playable frame(s)"), std::string::npos) << single.out;
}

TEST_F(KelInfo, FileThatIsNotAContainerFails) {
    kel_tool_test::WriteText(File("bogus.kel"), "definitely not a container file");
    KelFails({"info", "bogus.kel"}, 1, "cannot open 'bogus.kel'");
    EXPECT_NE(KelFails({"verify", "bogus.kel"}, 1, "").out.find("UNREADABLE"), std::string::npos);
}

TEST_F(KelInfo, MissingFileFails) { KelFails({"info", "absent.kel"}, 1, "absent.kel"); }

TEST_F(KelInfo, SpecialFilesAreRefusedAtOnceByEveryCommand) {
    // A FIFO would block an open that waits for a writer; a directory named
    // like a file is not a container either.
    ASSERT_EQ(::mkfifo(File("take.kel").c_str(), 0600), 0);
    for (const std::vector<std::string>& args : {std::vector<std::string>{"info", "take.kel"},
                                                 {"verify", "take.kel"},
                                                 {"copy", "take.kel", "out.kel"},
                                                 {"info", "/dev/zero"}}) {
        SCOPED_TRACE(args[0] + " " + args[1]);
        const auto run = Kel(args);
        EXPECT_EQ(run.exitCode, 1) << run.out << run.err;
    }
    EXPECT_FALSE(Exists("out.kel"));
}

TEST_F(KelInfo, LostFileHeaderCostsNoAtomInInfoVerifyAndCopy) {
    RecordSynthetic(File("rec.kel"), 2, 8, false, 64, 64);
    kel_test::ZeroRange(File("rec.kel"), 0, 128);  // the file header and the checkpoint slots
    const auto info = nlohmann::json::parse(Kel({"info", "--json", "rec.kel"}).out);
    EXPECT_EQ(info["damage"]["headerDamaged"], true);
    EXPECT_EQ(info["atoms"], 16);

    const auto verify = Kel({"verify", "--json", "rec.kel"});
    EXPECT_EQ(verify.exitCode, 1);
    const auto report = nlohmann::json::parse(verify.out);
    EXPECT_EQ(report["headerDamaged"], true);
    EXPECT_EQ(report["recoverableAtoms"], 16);

    const auto copy = Kel({"copy", "rec.kel", "copy.kel"});
    ASSERT_EQ(copy.exitCode, 0) << copy.err;
    const auto copied = nlohmann::json::parse(Kel({"info", "--json", "copy.kel"}).out);
    EXPECT_EQ(copied["damage"]["headerDamaged"], false);
    EXPECT_EQ(copied["atoms"], 16);
    EXPECT_EQ(Kel({"verify", "copy.kel"}).exitCode, 0);
}

TEST_F(KelVerify, IntactFileExitsZero) {
    RecordSynthetic(File("rec.kel"), 2, 4);
    const auto run = Kel({"verify", "rec.kel"});
    EXPECT_EQ(run.exitCode, 0) << run.out << run.err;
    EXPECT_NE(run.out.find("rec.kel: OK"), std::string::npos) << run.out;
}

TEST_F(KelVerify, FlippedPayloadByteIsReportedAndExitsNonZero) {
    RecordSynthetic(File("rec.kel"), 2, 4, false, 64, 64);
    // The middle of the file lies inside some atom's image payload.
    kel_test::FlipByte(File("rec.kel"), kel_test::FileSize(File("rec.kel")) / 2);
    const auto run = Kel({"verify", "--json", "rec.kel"});
    EXPECT_EQ(run.exitCode, 1);
    const auto report = nlohmann::json::parse(run.out);
    EXPECT_EQ(report["verdict"], "DAMAGED");
    EXPECT_EQ(report["intact"], false);
    EXPECT_EQ(report["damagedRecords"], 1);
    EXPECT_EQ(report["recoverableAtoms"], 7);
    ASSERT_FALSE(report["problems"].empty());

    const auto text = Kel({"verify", "rec.kel"});
    EXPECT_EQ(text.exitCode, 1);
    EXPECT_NE(text.out.find("DAMAGED"), std::string::npos) << text.out;
    EXPECT_NE(text.out.find("a reader would recover 7 atom(s)"), std::string::npos) << text.out;
}

TEST_F(KelVerify, TruncatedFileReportsWhatScanningRecovers) {
    RecordSynthetic(File("rec.kel"), 1, 6, false, 64, 64);
    // Cut into the last atom record: the index and the last atom are lost.
    const auto info = nlohmann::json::parse(Kel({"info", "--json", "rec.kel"}).out);
    const std::uint64_t perAtom = info["streams"][0]["storedBytes"].get<std::uint64_t>() / 6;
    kel_test::TruncateFile(File("rec.kel"), kel_test::FileSize(File("rec.kel")) - perAtom);
    const auto run = Kel({"verify", "--json", "rec.kel"});
    EXPECT_EQ(run.exitCode, 1);
    const auto report = nlohmann::json::parse(run.out);
    EXPECT_EQ(report["indexValid"], false);
    EXPECT_EQ(report["recoverableAtoms"], 5);
}

TEST_F(KelThumbnail, WritesTheStoredThumbnailAsPng) {
    RecordSynthetic(File("rec.kel"), 2, 2, /*thumbnail=*/true, 64, 48);
    const auto run = Kel({"thumbnail", "rec.kel", "-o", "thumb.png", "--stream", "1"});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_NE(run.out.find("stored in the file"), std::string::npos) << run.out;
    const PngImage png = ReadPng(File("thumb.png"));
    ASSERT_GT(png.width, 0U);
    EXPECT_EQ(png.width, 64U);
    EXPECT_EQ(png.height, 48U);
    // Camera 1's colour bars start with the second bar colour (yellow).
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
    const PngImage png = ReadPng(File("thumb.png"));
    ASSERT_GT(png.width, 0U);
    EXPECT_EQ(png.width, 256U);
    EXPECT_EQ(png.height, 64U);
}

}  // namespace
