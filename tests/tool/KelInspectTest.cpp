// `kel info`, `kel verify` and `kel thumbnail` on files written by the
// plugin's writers.

#include <gtest/gtest.h>
#include <png.h>

#include <filesystem>
#include <nlohmann/json.hpp>

#include "ToolTestSupport.h"
#include "support/TestSupport.h"

namespace {

using kel_test::TempDir;
using kel_tool_test::RecordSynthetic;
using kel_tool_test::RunKel;

struct PngInfo {
    bool valid = false;
    std::uint32_t width = 0;
    std::uint32_t height = 0;
    std::vector<std::uint8_t> rgba;
};

PngInfo ReadPng(const std::string& path) {
    PngInfo info;
    const auto bytes = kel_test::ReadFileBytes(path);
    static const std::uint8_t kSignature[8] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
    if (bytes.size() < 33 || !std::equal(std::begin(kSignature), std::end(kSignature), bytes.begin()) ||
        std::string(bytes.begin() + 12, bytes.begin() + 16) != "IHDR") {
        return info;
    }
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    if (png_image_begin_read_from_memory(&image, bytes.data(), bytes.size()) == 0) {
        return info;
    }
    image.format = PNG_FORMAT_RGBA;
    info.rgba.resize(PNG_IMAGE_SIZE(image));
    if (png_image_finish_read(&image, nullptr, info.rgba.data(), 0, nullptr) == 0) {
        return info;
    }
    info.valid = true;
    info.width = image.width;
    info.height = image.height;
    return info;
}

TEST(KelInfo, JsonDescribesStreamsFramesLayersAndThumbnail) {
    TempDir dir;
    RecordSynthetic(dir.File("rec.kel"), 2, 5, /*thumbnail=*/true, 64, 32);
    const auto run = RunKel({"info", "--json", "rec.kel"}, dir.Path().string());
    ASSERT_EQ(run.exitCode, 0) << run.err;
    const auto info = nlohmann::json::parse(run.out);
    EXPECT_EQ(info["ok"], true);
    EXPECT_EQ(info["atoms"], 10);
    EXPECT_EQ(info["frames"], 5);
    EXPECT_EQ(info["hasThumbnail"], true);
    EXPECT_EQ(info["fileSize"], kel_test::FileSize(dir.File("rec.kel")));
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
        EXPECT_TRUE(kinds.contains("TextureRGBA/PRIMARY_COLOR"));
        EXPECT_TRUE(kinds.contains("TextureRGBA/THUMBNAIL"));
        EXPECT_TRUE(kinds.contains("Mesh/DYNAMIC"));
        EXPECT_TRUE(kinds.contains("CameraParams/CAMERA_PRIMARY"));
        EXPECT_TRUE(kinds.contains("StreamInfo/STATIC"));
    }
}

TEST(KelInfo, TableReportsThumbnailAbsence) {
    TempDir dir;
    RecordSynthetic(dir.File("rec.kel"), 1, 3);
    const auto run = RunKel({"info", "rec.kel"}, dir.Path().string());
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_NE(run.out.find("thumbnail: no"), std::string::npos) << run.out;
    EXPECT_NE(run.out.find("3 in 1 stream(s), 3 playable frame(s)"), std::string::npos) << run.out;
}

TEST(KelInfo, DirectorySummarisesEveryContainerFile) {
    TempDir dir;
    RecordSynthetic(dir.File("set/a.kel"), 1, 3);
    RecordSynthetic(dir.File("set/b.kel"), 2, 4, true);
    kel_tool_test::WriteText(dir.File("set/notes.txt"), "not a container");
    const auto run = RunKel({"info", "--json", "set"}, dir.Path().string());
    ASSERT_EQ(run.exitCode, 0) << run.err;
    const auto info = nlohmann::json::parse(run.out);
    ASSERT_EQ(info["files"].size(), 2U);
    EXPECT_EQ(std::filesystem::path(info["files"][0]["path"].get<std::string>()).filename(), "a.kel");
    EXPECT_EQ(info["files"][0]["atoms"], 3);
    EXPECT_EQ(info["files"][1]["atoms"], 8);
    EXPECT_EQ(info["files"][1]["hasThumbnail"], true);

    const auto table = RunKel({"info", "set"}, dir.Path().string());
    ASSERT_EQ(table.exitCode, 0) << table.err;
    EXPECT_NE(table.out.find("2 container file(s)"), std::string::npos) << table.out;
    EXPECT_NE(table.out.find("11 atoms"), std::string::npos) << table.out;
}

TEST(KelInfo, FileThatIsNotAContainerFails) {
    TempDir dir;
    kel_tool_test::WriteText(dir.File("bogus.kel"), "definitely not a container file");
    const auto run = RunKel({"info", "bogus.kel"}, dir.Path().string());
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_NE(run.err.find("cannot open 'bogus.kel'"), std::string::npos) << run.err;
}

TEST(KelInfo, MissingFileFails) {
    TempDir dir;
    const auto run = RunKel({"info", "absent.kel"}, dir.Path().string());
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_NE(run.err.find("absent.kel"), std::string::npos) << run.err;
}

TEST(KelVerify, IntactFileExitsZero) {
    TempDir dir;
    RecordSynthetic(dir.File("rec.kel"), 2, 4);
    const auto run = RunKel({"verify", "rec.kel"}, dir.Path().string());
    EXPECT_EQ(run.exitCode, 0) << run.out << run.err;
    EXPECT_NE(run.out.find("rec.kel: OK"), std::string::npos) << run.out;
}

TEST(KelVerify, FlippedPayloadByteIsReportedAndExitsNonZero) {
    TempDir dir;
    RecordSynthetic(dir.File("rec.kel"), 2, 4, false, 64, 64);
    // The middle of the file lies inside some atom's image payload.
    kel_test::FlipByte(dir.File("rec.kel"), kel_test::FileSize(dir.File("rec.kel")) / 2);
    const auto run = RunKel({"verify", "--json", "rec.kel"}, dir.Path().string());
    EXPECT_EQ(run.exitCode, 1);
    const auto report = nlohmann::json::parse(run.out);
    EXPECT_EQ(report["verdict"], "DAMAGED");
    EXPECT_EQ(report["intact"], false);
    EXPECT_EQ(report["damagedRecords"], 1);
    EXPECT_EQ(report["recoverableAtoms"], 7);
    ASSERT_FALSE(report["problems"].empty());

    const auto text = RunKel({"verify", "rec.kel"}, dir.Path().string());
    EXPECT_EQ(text.exitCode, 1);
    EXPECT_NE(text.out.find("DAMAGED"), std::string::npos) << text.out;
    EXPECT_NE(text.out.find("a reader would recover 7 atom(s)"), std::string::npos) << text.out;
}

TEST(KelVerify, TruncatedFileReportsWhatScanningRecovers) {
    TempDir dir;
    RecordSynthetic(dir.File("rec.kel"), 1, 6, false, 64, 64);
    // Cut into the last atom record: the index and the last atom are lost.
    const auto info = nlohmann::json::parse(RunKel({"info", "--json", "rec.kel"}, dir.Path().string()).out);
    const std::uint64_t perAtom = info["streams"][0]["payloadBytes"].get<std::uint64_t>() / 6;
    kel_test::TruncateFile(dir.File("rec.kel"), kel_test::FileSize(dir.File("rec.kel")) - perAtom);
    const auto run = RunKel({"verify", "--json", "rec.kel"}, dir.Path().string());
    EXPECT_EQ(run.exitCode, 1);
    const auto report = nlohmann::json::parse(run.out);
    EXPECT_EQ(report["indexValid"], false);
    EXPECT_EQ(report["recoverableAtoms"], 5);
}

TEST(KelVerify, NonContainerIsUnreadable) {
    TempDir dir;
    kel_tool_test::WriteText(dir.File("bogus.kel"), "definitely not a container file");
    const auto run = RunKel({"verify", "bogus.kel"}, dir.Path().string());
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_NE(run.out.find("UNREADABLE"), std::string::npos) << run.out;
}

TEST(KelThumbnail, WritesTheStoredThumbnailAsPng) {
    TempDir dir;
    RecordSynthetic(dir.File("rec.kel"), 2, 2, /*thumbnail=*/true, 64, 48);
    const auto run = RunKel({"thumbnail", "rec.kel", "-o", "thumb.png", "--stream", "1"}, dir.Path().string());
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_NE(run.out.find("stored in the file"), std::string::npos) << run.out;
    const PngInfo png = ReadPng(dir.File("thumb.png"));
    ASSERT_TRUE(png.valid);
    EXPECT_EQ(png.width, 64U);
    EXPECT_EQ(png.height, 48U);
    // Camera 1's colour bars start with the second bar colour (yellow).
    EXPECT_EQ(png.rgba[0], 255);
    EXPECT_EQ(png.rgba[1], 255);
    EXPECT_EQ(png.rgba[2], 0);
    EXPECT_EQ(png.rgba[3], 255);
}

TEST(KelThumbnail, MakesOneFromTheFirstFrameWhenNoneIsStored) {
    TempDir dir;
    RecordSynthetic(dir.File("rec.kel"), 1, 2, /*thumbnail=*/false, 512, 128);
    const auto run = RunKel({"thumbnail", "rec.kel", "-o", "thumb.png"}, dir.Path().string());
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_NE(run.out.find("made from the first frame"), std::string::npos) << run.out;
    const PngInfo png = ReadPng(dir.File("thumb.png"));
    ASSERT_TRUE(png.valid);
    EXPECT_EQ(png.width, 256U);
    EXPECT_EQ(png.height, 64U);
}

TEST(KelThumbnail, UnknownStreamFails) {
    TempDir dir;
    RecordSynthetic(dir.File("rec.kel"), 1, 1);
    const auto run = RunKel({"thumbnail", "rec.kel", "-o", "thumb.png", "--stream", "7"}, dir.Path().string());
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_NE(run.err.find("has no stream 7"), std::string::npos) << run.err;
    EXPECT_FALSE(std::filesystem::exists(dir.File("thumb.png")));
}

}  // namespace
