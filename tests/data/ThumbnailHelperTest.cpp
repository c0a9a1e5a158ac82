#include <KEL/PurposeGuids.h>
#include <KEL/ThumbnailHelper.h>
#include <gtest/gtest.h>

#include "support/TestSupport.h"

namespace {

std::shared_ptr<KEL::Atom> AtomWithImage(std::uint32_t w, std::uint32_t h, std::vector<std::uint8_t> pixels) {
    auto atom = std::make_shared<KEL::Atom>(0, 0, 0);
    atom->AddDataLayer(
        std::make_shared<KEL::DataTypeTextureRGBA>(w, h, KelCommon::SharedBuffer::FromVector(std::move(pixels))), true);
    return atom;
}

}  // namespace

TEST(ThumbnailHelper, LongestSideBecomes256WithAspectKept) {
    auto wide = AtomWithImage(1024, 512, std::vector<std::uint8_t>(1024 * 512 * 4, 7));
    auto thumb = KEL::ThumbnailHelper::getThumbnail({wide}, false, false);
    ASSERT_TRUE(thumb);
    EXPECT_EQ(thumb->GetWidth(), 256U);
    EXPECT_EQ(thumb->GetHeight(), 128U);
    EXPECT_EQ(thumb->GetPurposeGuid(), KEL::PurposeGuid_THUMBNAIL);
    EXPECT_EQ(thumb->GetPixels().size(), 256U * 128 * 4);
    EXPECT_EQ(thumb->GetPixels().data()[100], 7);

    auto tall = AtomWithImage(3, 2000, std::vector<std::uint8_t>(3 * 2000 * 4, 1));
    auto t2 = KEL::ThumbnailHelper::getThumbnail({tall}, false, false);
    ASSERT_TRUE(t2);
    EXPECT_EQ(t2->GetHeight(), 256U);
    EXPECT_EQ(t2->GetWidth(), 1U);
}

TEST(ThumbnailHelper, AveragesEachBlockRatherThanPickingAPixel) {
    // 512x2 image: columns alternate black and white, so every 2x2 block
    // averages to mid grey; nearest-pixel sampling would give pure black or white.
    std::vector<std::uint8_t> px(512 * 2 * 4);
    for (std::uint32_t y = 0; y < 2; ++y) {
        for (std::uint32_t x = 0; x < 512; ++x) {
            const std::uint8_t v = (x % 2 == 0) ? 0 : 200;
            for (int c = 0; c < 4; ++c) {
                px[(y * 512 + x) * 4 + c] = v;
            }
        }
    }
    auto thumb = KEL::ThumbnailHelper::getThumbnail({AtomWithImage(512, 2, px)}, false, false);
    ASSERT_TRUE(thumb);
    EXPECT_EQ(thumb->GetWidth(), 256U);
    EXPECT_EQ(thumb->GetHeight(), 1U);
    for (std::size_t i = 0; i < thumb->GetPixels().size(); ++i) {
        EXPECT_EQ(thumb->GetPixels().data()[i], 100) << i;
    }
}

TEST(ThumbnailHelper, SmallImagesKeepTheirSizeAndShareTheirPixels) {
    auto atom = AtomWithImage(4, 4, std::vector<std::uint8_t>(64, 9));
    auto thumb = KEL::ThumbnailHelper::getThumbnail({atom}, false, false);
    ASSERT_TRUE(thumb);
    EXPECT_EQ(thumb->GetWidth(), 4U);
    auto src = KEL::LayerCast<KEL::DataTypeTextureRGBA>(atom->GetAllDataLayers()[0]);
    EXPECT_TRUE(thumb->GetPixels().SharesStorageWith(src->GetPixels()));
}

TEST(ThumbnailHelper, NoImageGivesNothingAndExistingThumbnailsAreNotSources) {
    auto noImage = kel_test::MakeFrameAtom(0, 0);
    noImage->RemoveDataLayers(KEL::DataTypeTextureRGBA::TheTypeGuid());
    EXPECT_FALSE(KEL::ThumbnailHelper::getThumbnail({noImage}, false, false));
    EXPECT_FALSE(KEL::ThumbnailHelper::getThumbnail({}, false, false));
    EXPECT_FALSE(KEL::ThumbnailHelper::getThumbnail({nullptr}, false, false));

    auto onlyThumb = std::make_shared<KEL::Atom>();
    onlyThumb->AddDataLayer(kel_test::MakeTexture(8, 8, 1, KEL::PurposeGuid_THUMBNAIL), true);
    EXPECT_FALSE(KEL::ThumbnailHelper::getThumbnail({onlyThumb}, false, false));
    auto reused = KEL::ThumbnailHelper::getThumbnail({onlyThumb}, true, false);
    ASSERT_TRUE(reused);
    EXPECT_EQ(reused, onlyThumb->GetAllDataLayers()[0]);

    // A texture whose buffer does not match its size is not an image.
    auto broken = std::make_shared<KEL::Atom>();
    broken->AddDataLayer(std::make_shared<KEL::DataTypeTextureRGBA>(100, 100, kel_test::PatternBuffer(10, 1)), true);
    EXPECT_FALSE(KEL::ThumbnailHelper::getThumbnail({broken}, false, false));
}

TEST(ThumbnailHelper, KeepFullSizeSkipsScaling) {
    auto atom = AtomWithImage(600, 300, std::vector<std::uint8_t>(600 * 300 * 4, 1));
    auto thumb = KEL::ThumbnailHelper::getThumbnail({atom}, false, true);
    ASSERT_TRUE(thumb);
    EXPECT_EQ(thumb->GetWidth(), 600U);
}
