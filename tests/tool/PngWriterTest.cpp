// The PNG writer's refusals (its images are decoded and compared pixel for
// pixel by the thumbnail and export tests of the tool).

#include <gtest/gtest.h>

#include <filesystem>

#include "PngWriter.h"
#include "support/TestSupport.h"

namespace {

using kel_test::TempDir;

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
