// `kel report` and `kel export` on files with known content: planted gaps,
// streams without images, damage, and the pixels of exported frames.

#include <KEL/DataTypeBinary.h>
#include <KEL/SerializeToKel.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <regex>

#include "ToolTestSupport.h"

namespace {

using KelReport = kel_tool_test::KelToolTest;
using KelExport = kel_tool_test::KelToolTest;
using kel_tool_test::Contains;
using kel_tool_test::ReadText;

// Three streams of 20 frames at 25 a second: 0 with images and no gap, 1
// with images and frames 8 to 12 missing (five dropped), 2 with a binary
// blob and no image.
void WriteTake(const std::string& path) {
    KEL::SerializeToKel writer(path.c_str(), true, KEL::CURRENT_VERSION, false);
    ASSERT_EQ(writer.GetOpenResult(), KEL::KEL_OK);
    for (std::uint32_t f = 0; f < 20; ++f) {
        for (std::uint16_t s = 0; s < 3; ++s) {
            if (s == 1 && f >= 8 && f <= 12) {
                continue;
            }
            auto atom = std::make_shared<KEL::Atom>(s, f, 5'000'000 + f * 40'000);
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

std::ptrdiff_t Occurrences(const std::string& text, const std::string& what) {
    const std::regex pattern(what);
    return std::distance(std::sregex_iterator(text.begin(), text.end(), pattern), std::sregex_iterator());
}

// One file: sampled frames of each image stream (the last one among them),
// dropped frames counted per stream and the gap shown. A directory: each
// file in playing order with its own damage, and the files that do not open.
// (That the page is valid HTML with one drawing per stream and fetches
// nothing is checked in a browser by test_report_render.py.)
TEST_F(KelReport, ShowsSampledFramesAndDroppedFramesPerStreamAndEachFileOfADirectoryWithItsDamage) {
    std::filesystem::create_directories(File("takes"));
    WriteTake(File("takes/take10.kel"));
    WriteTake(File("takes/take2.kel"));
    const auto one = KelOk({"report", "takes/take2.kel", "-o", "one.html", "--samples", "6"});
    std::string html = ReadText(File("one.html"));
    EXPECT_EQ(Occurrences(html, "<img src=\"data:image/png;base64,"), 12);  // six frames of each image stream
    EXPECT_TRUE(Contains(html, {"stream 0: 20 frame(s), 0 missing", "stream 1: 15 frame(s), 5 missing",
                                "5 frame(s) missing between 0.280 s and 0.520 s", "This stream holds no images.",
                                "alt=\"stream 1 frame 19\""}));
    // take2 loses its index and footer, as when its writer dies at the end.
    kel_test::TruncateFile(File("takes/take2.kel"), kel_test::FileSize(File("takes/take2.kel")) - 100);
    kel_tool_test::WriteText(File("takes/broken.kel"), "not a container");
    // The page is written, yet the run fails: one file could not be opened.
    KelFails({"report", "takes", "-o", "report.html"}, 1, "1 file(s) could not be opened");
    html = ReadText(File("report.html"));
    const std::size_t broken = html.find("<h2>broken.kel</h2>");
    const std::size_t take10 = html.find("<h2>take10.kel</h2>");
    const std::size_t take2 = html.find("<h2>take2.kel</h2>");
    // In byte order of the paths, as the sequential source plays them.
    ASSERT_TRUE(broken < take10 && take10 < take2 && take2 != std::string::npos)
        << broken << ' ' << take10 << ' ' << take2;
    EXPECT_TRUE(Contains(html, {"Cannot open:"}));
    EXPECT_EQ(Occurrences(html, "<svg "), 6);
    EXPECT_TRUE(
        Contains(html.substr(take2), {"no: its writer is still writing or died", "of an incomplete last record"}));
    EXPECT_EQ(html.substr(take10, take2 - take10).find("incomplete"), std::string::npos);
}

// The progress bar of the export is never drawn into a file.
TEST_F(KelExport, WritesTheSelectedFramesAsPngsOfTheStoredPixelsAndOnlyOfImages) {
    WriteTake(File("take.kel"));
    KelFails({"export", "take.kel", "--stream", "2", "-o", "frames"}, 1, "holds no images");
    const auto run =
        KelOk({"export", "take.kel", "--stream", "1", "-o", "frames", "--every", "3", "--from", "2", "--to", "16"});
    EXPECT_EQ(run.err, "");
    // Frames 2..16 of stream 1 are 2..7 and 13..16; every third of them.
    const auto files = std::filesystem::directory_iterator(File("frames"));
    EXPECT_EQ(std::distance(begin(files), end(files)), 4);
    const auto reader = kel_test::OpenContainer(File("take.kel"));
    for (const std::uint32_t nr : {2U, 5U, 13U, 16U}) {
        const auto png =
            kel_tool_test::ReadPng(File("frames/frame_0000" + std::to_string(nr + 100).substr(1) + ".png"));
        const auto texture = KEL::LayerCast<KEL::DataTypeTextureRGBA>(
            reader->GetFrameAtom(1, nr)->GetDataLayerByType(KEL::DataTypeTextureRGBA::TheTypeGuid(), false));
        ASSERT_TRUE(texture);
        EXPECT_EQ(std::pair(png.width, png.height), std::pair(texture->GetWidth(), texture->GetHeight()));
        EXPECT_TRUE(std::equal(png.rgba.begin(), png.rgba.end(), texture->GetPixels().data())) << nr;
    }
    // Nothing is replaced without --overwrite; bounds may be seconds.
    KelFails({"export", "take.kel", "--stream", "1", "-o", "frames", "--from", "5", "--to", "5"}, 1,
             "frame_000005.png' exists; nothing was written (pass --overwrite to replace)");
    KelOk({"export", "take.kel", "--stream", "1", "-o", "timed", "--from", "0s", "--to", "3600s"});
    const auto all = std::filesystem::directory_iterator(File("timed"));
    EXPECT_EQ(static_cast<std::size_t>(std::distance(begin(all), end(all))), reader->GetNumFrames(1));
    KelFails({"export", "take.kel", "--stream", "1", "-o", "x", "--to", "soon"}, 2, "--to 'soon' is neither");
}

}  // namespace
