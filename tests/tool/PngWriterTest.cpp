// The PNG writer, checked by decoding its files with libpng.

#include <gtest/gtest.h>
#include <png.h>

#include <filesystem>

#include "PngWriter.h"
#include "support/TestSupport.h"

namespace {

using kel_test::TempDir;

std::vector<std::uint8_t> Decode(const std::string& path, std::uint32_t* width, std::uint32_t* height) {
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    if (png_image_begin_read_from_file(&image, path.c_str()) == 0) {
        return {};
    }
    image.format = PNG_FORMAT_RGBA;
    std::vector<std::uint8_t> pixels(PNG_IMAGE_SIZE(image));
    if (png_image_finish_read(&image, nullptr, pixels.data(), 0, nullptr) == 0) {
        return {};
    }
    *width = image.width;
    *height = image.height;
    return pixels;
}

TEST(PngWriter, WritesPixelsThatDecodeBackExactly) {
    TempDir dir;
    const std::uint32_t w = 7;
    const std::uint32_t h = 5;
    const auto pixels = kel_test::PatternBuffer(w * h * 4, 42);
    std::string error;
    ASSERT_TRUE(KelTool::WritePngRgba(dir.File("a.png"), w, h, pixels.data(), pixels.size(), &error)) << error;
    std::uint32_t dw = 0;
    std::uint32_t dh = 0;
    const auto decoded = Decode(dir.File("a.png"), &dw, &dh);
    EXPECT_EQ(dw, w);
    EXPECT_EQ(dh, h);
    ASSERT_EQ(decoded.size(), pixels.size());
    EXPECT_TRUE(std::equal(decoded.begin(), decoded.end(), pixels.data()));
}

TEST(PngWriter, RefusesBufferOfWrongSize) {
    TempDir dir;
    const auto pixels = kel_test::PatternBuffer(10, 1);
    std::string error;
    EXPECT_FALSE(KelTool::WritePngRgba(dir.File("a.png"), 2, 2, pixels.data(), pixels.size(), &error));
    EXPECT_NE(error.find("expected 16"), std::string::npos) << error;
    EXPECT_FALSE(std::filesystem::exists(dir.File("a.png")));
}

TEST(PngWriter, RefusesEmptyImage) {
    TempDir dir;
    std::string error;
    const std::uint8_t pixel[4] = {};
    EXPECT_FALSE(KelTool::WritePngRgba(dir.File("a.png"), 0, 1, pixel, 0, &error));
    EXPECT_FALSE(error.empty());
}

TEST(PngWriter, UnwritableDirectoryFailsWithMessage) {
    TempDir dir;
    const auto pixels = kel_test::PatternBuffer(4, 1);
    std::string error;
    EXPECT_FALSE(KelTool::WritePngRgba(dir.File("missing/a.png"), 1, 1, pixels.data(), pixels.size(), &error));
    EXPECT_NE(error.find("cannot create"), std::string::npos) << error;
}

}  // namespace
