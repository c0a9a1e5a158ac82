// `kel report` and `kel export` on files with known content: planted gaps,
// streams without images, damage, and the pixels of exported frames.

#include <KEL/DataTypeBinary.h>
#include <KEL/ReadKEL2File.h>
#include <KEL/SerializeToKel.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "ToolTestSupport.h"

namespace {

using KelReport = kel_tool_test::KelToolTest;
using KelExport = kel_tool_test::KelToolTest;
using kel_tool_test::ReadText;

constexpr std::int64_t kInterval = 40'000;  // 25 frames a second

// Three streams of 20 frames: 0 with images and no gap, 1 with images and
// frames 8 to 12 missing (five dropped), 2 with a binary blob and no image.
void WriteTake(const std::string& path) {
    KEL::SerializeToKel writer(path.c_str(), true, KEL::CURRENT_VERSION, false);
    ASSERT_EQ(writer.GetOpenResult(), KEL::KEL_OK);
    for (std::uint32_t f = 0; f < 20; ++f) {
        for (std::uint16_t s = 0; s < 3; ++s) {
            if (s == 1 && f >= 8 && f <= 12) {
                continue;
            }
            auto atom = std::make_shared<KEL::Atom>(s, f, 5'000'000 + f * kInterval);
            if (s == 2) {
                atom->AddDataLayer(std::make_shared<KEL::DataTypeBinary>("blob", kel_test::PatternBuffer(32, f)), true);
            } else {
                atom->AddDataLayer(kel_test::MakeTexture(48, 32, s * 1000 + f), true);
            }
            ASSERT_EQ(writer.SerializeAtom(atom), KEL::KEL_OK);
        }
    }
    ASSERT_EQ(writer.Close(), KEL::KEL_OK);
}

std::size_t Occurrences(const std::string& text, const std::string& what) {
    std::size_t count = 0;
    for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + what.size())) {
        ++count;
    }
    return count;
}

TEST_F(KelReport, ShowsSampledFramesATimelinePerStreamAndCountsDroppedFrames) {
    WriteTake(File("take.kel"));
    const auto run = Kel({"report", "take.kel", "-o", "report.html", "--samples", "6"});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    const std::string html = ReadText(File("report.html"));
    EXPECT_EQ(Occurrences(html, "<img src=\"data:image/png;base64,"), 12U);  // six frames of each image stream
    EXPECT_EQ(Occurrences(html, "<svg "), 3U);
    EXPECT_NE(html.find("stream 0: 20 frame(s), 0 dropped"), std::string::npos);
    EXPECT_NE(html.find("stream 1: 15 frame(s), 5 dropped"), std::string::npos);
    EXPECT_NE(html.find("5 frame(s) missing between 0.280 s and 0.520 s"), std::string::npos);
    EXPECT_NE(html.find("This stream holds no images."), std::string::npos);
    EXPECT_NE(html.find("alt=\"stream 1 frame 19\""), std::string::npos);   // the last frame is sampled
    EXPECT_EQ(html.find("http"), html.find("http://www.w3.org/2000/svg"));  // nothing fetched from anywhere
}

TEST_F(KelReport, DirectoryShowsEachFileInPlayingOrderWithItsDamage) {
    std::filesystem::create_directories(File("takes"));
    WriteTake(File("takes/take10.kel"));
    WriteTake(File("takes/take2.kel"));
    // take2 loses its index and footer, as when its writer dies at the end.
    kel_test::TruncateFile(File("takes/take2.kel"), kel_test::FileSize(File("takes/take2.kel")) - 100);
    kel_tool_test::WriteText(File("takes/broken.kel"), "not a container");
    const auto run = Kel({"report", "takes", "-o", "report.html"});
    EXPECT_EQ(run.exitCode, 1);  // the page is written; one file could not be opened
    EXPECT_NE(run.err.find("1 file(s) could not be opened"), std::string::npos) << run.err;
    const std::string html = ReadText(File("report.html"));
    const std::size_t broken = html.find("<h2>broken.kel</h2>");
    const std::size_t take10 = html.find("<h2>take10.kel</h2>");
    const std::size_t take2 = html.find("<h2>take2.kel</h2>");
    ASSERT_NE(broken, std::string::npos);
    ASSERT_NE(take2, std::string::npos);
    EXPECT_LT(broken, take10);  // byte order of the paths, as the sequential source plays them
    EXPECT_LT(take10, take2);
    EXPECT_NE(html.find("Cannot open:"), std::string::npos);
    EXPECT_EQ(Occurrences(html, "<svg "), 6U);
    const std::string take2Section = html.substr(take2);
    EXPECT_NE(take2Section.find("no: its writer is still writing or died"), std::string::npos);
    EXPECT_NE(take2Section.find("of an incomplete last record"), std::string::npos);
    EXPECT_EQ(html.substr(take10, take2 - take10).find("incomplete"), std::string::npos);
}

TEST_F(KelExport, WritesTheSelectedFramesAsPngsOfTheStoredPixels) {
    WriteTake(File("take.kel"));
    const auto run =
        Kel({"export", "take.kel", "--stream", "1", "-o", "frames", "--every", "3", "--from", "2", "--to", "16"});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    // Frames 2..16 of stream 1 are 2..7 and 13..16; every third of them.
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(File("frames"))) {
        names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::string>{"frame_000002.png", "frame_000005.png", "frame_000013.png",
                                               "frame_000016.png"}));
    KEL::ReadKEL2File reader(File("take.kel").c_str());
    ASSERT_EQ(reader.Initialize(), KEL::KEL_OK);
    for (const std::uint32_t nr : {2U, 5U, 13U, 16U}) {
        char name[32];
        std::snprintf(name, sizeof name, "frames/frame_%06u.png", nr);
        const auto png = kel_tool_test::ReadPng(File(name));
        const auto texture = KEL::LayerCast<KEL::DataTypeTextureRGBA>(
            reader.GetFrameAtom(1, nr)->GetDataLayerByType(KEL::DataTypeTextureRGBA::TheTypeGuid(), false));
        ASSERT_TRUE(texture);
        EXPECT_EQ(png.width, texture->GetWidth());
        EXPECT_EQ(png.height, texture->GetHeight());
        EXPECT_TRUE(std::equal(png.rgba.begin(), png.rgba.end(), texture->GetPixels().data())) << name;
    }
}

TEST_F(KelExport, StreamWithoutImagesOrAnUnknownStreamFails) {
    WriteTake(File("take.kel"));
    KelFails({"export", "take.kel", "--stream", "2", "-o", "frames"}, 1, "holds no images");
    KelFails({"export", "take.kel", "--stream", "9", "-o", "frames"}, 1, "has no stream 9");
}

}  // namespace
