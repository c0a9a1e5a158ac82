// The PNG writer's refusals of images it cannot write (its images are
// decoded and compared pixel for pixel, and its refusal of a path it cannot
// create is checked, by the thumbnail and export tests of the tool).

#include <gtest/gtest.h>

#include <filesystem>

#include "PngWriter.h"
#include "support/TestSupport.h"

namespace {

TEST(PngWriter, ImageOfNoPixelsOrPixelsNotMatchingItsSizeIsRefusedWithMessageAndNoFile) {
    const kel_test::TempDir dir;
    const auto pixels = kel_test::PatternBuffer(16, 1);
    for (const auto& [width, bytes, message] : std::vector<std::tuple<std::uint32_t, std::size_t, std::string>>{
             {2, 10, "pixel buffer holds 10 bytes, expected 16"}, {0, 0, "an image of 0x2 pixels"}}) {
        std::string error;
        EXPECT_FALSE(KelTool::WritePngRgba(dir.File("a.png"), width, 2, pixels.data(), bytes, &error));
        EXPECT_NE(error.find(message), std::string::npos) << error;
        EXPECT_FALSE(std::filesystem::exists(dir.File("a.png")));
    }
}

}  // namespace
