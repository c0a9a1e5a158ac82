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

TEST(PngWriter, BadImageOrPathIsRefusedWithMessageAndNoFile) {
    struct Case {
        const char* name;
        std::uint32_t width;
        std::uint32_t height;
        std::size_t bytes;
        const char* message;
    };
    for (const Case& c : {Case{"a.png", 2, 2, 10, "expected 16"}, Case{"a.png", 0, 1, 0, ""},
                          Case{"missing/a.png", 1, 1, 4, "cannot create"}}) {
        SCOPED_TRACE(std::to_string(c.width) + "x" + std::to_string(c.height) + " to " + c.name);
        TempDir dir;
        const auto pixels = kel_test::PatternBuffer(c.bytes, 1);
        std::string error;
        EXPECT_FALSE(KelTool::WritePngRgba(dir.File(c.name), c.width, c.height, pixels.data(), c.bytes, &error));
        EXPECT_FALSE(error.empty());
        EXPECT_NE(error.find(c.message), std::string::npos) << error;
        EXPECT_FALSE(std::filesystem::exists(dir.File(c.name)));
    }
}

}  // namespace
