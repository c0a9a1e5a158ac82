#include <KEL/PurposeGuids.h>
#include <KEL/ThumbnailHelper.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <random>
#include <string>
#include <vector>

#include "support/TestSupport.h"

namespace {

std::shared_ptr<KEL::Atom> AtomWithImage(std::uint32_t w, std::uint32_t h, std::vector<std::uint8_t> pixels) {
    auto atom = std::make_shared<KEL::Atom>(0, 0, 0);
    atom->AddDataLayer(
        std::make_shared<KEL::DataTypeTextureRGBA>(w, h, KelCommon::SharedBuffer::FromVector(std::move(pixels))), true);
    return atom;
}

}  // namespace

// Random sizes, from thin strips to large squares, in one random colour each.
// Model: an image with no side above the limit, or kept at full size, keeps
// its size and shares its pixels; a larger one gets the limit as its longest
// side and the other side scaled to match (rounded, at least 1). Averaging
// one colour gives that colour.
TEST(ThumbnailHelper, GeneratedImagesScaleToTheLimitWithTheirAspectKept) {
    constexpr std::uint32_t kLimit = KEL::ThumbnailHelper::kMaxSide;
    std::mt19937 rng(29);
    auto side = [&] { return std::uniform_int_distribution<std::uint32_t>(1, rng() % 4 == 0 ? 2000 : 700)(rng); };
    for (int round = 0; round < 40; ++round) {
        const std::uint32_t w = round % 5 == 1 ? 1 : side();
        const std::uint32_t h = round % 5 == 0 ? 1 : side();
        const bool keepFullSize = rng() % 4 == 0;
        const std::array<std::uint8_t, 4> colour = {static_cast<std::uint8_t>(rng()), static_cast<std::uint8_t>(rng()),
                                                    static_cast<std::uint8_t>(rng()), static_cast<std::uint8_t>(rng())};
        std::vector<std::uint8_t> px(static_cast<std::size_t>(w) * h * 4);
        for (std::size_t i = 0; i < px.size(); ++i) {
            px[i] = colour[i % 4];
        }
        auto atom = AtomWithImage(w, h, std::move(px));
        const auto source = KEL::LayerCast<KEL::DataTypeTextureRGBA>(atom->GetAllDataLayers()[0]);
        SCOPED_TRACE(std::to_string(w) + "x" + std::to_string(h) + (keepFullSize ? " kept" : ""));
        auto thumb = KEL::ThumbnailHelper::getThumbnail({atom}, false, keepFullSize);
        ASSERT_TRUE(thumb);
        EXPECT_EQ(thumb->GetPurposeGuid(), KEL::PurposeGuid_THUMBNAIL);
        const std::uint32_t longest = std::max(w, h);
        if (keepFullSize || longest <= kLimit) {
            EXPECT_EQ(thumb->GetWidth(), w);
            EXPECT_EQ(thumb->GetHeight(), h);
            EXPECT_TRUE(thumb->GetPixels().SharesStorageWith(source->GetPixels()));
            continue;
        }
        EXPECT_EQ(std::max(thumb->GetWidth(), thumb->GetHeight()), kLimit);
        EXPECT_LE(std::abs(thumb->GetWidth() - std::max(1.0, static_cast<double>(w) * kLimit / longest)), 0.5);
        EXPECT_LE(std::abs(thumb->GetHeight() - std::max(1.0, static_cast<double>(h) * kLimit / longest)), 0.5);
        ASSERT_EQ(thumb->GetPixels().size(), std::size_t{thumb->GetWidth()} * thumb->GetHeight() * 4);
        for (std::size_t i = 0; i < thumb->GetPixels().size(); ++i) {
            ASSERT_EQ(thumb->GetPixels().data()[i], colour[i % 4]) << i;
        }
    }
}

TEST(ThumbnailHelper, OnlyAUsableImageThatIsNotAThumbnailIsASource) {
    auto noImage = kel_test::MakeFrameAtom(0, 0);
    noImage->RemoveDataLayers(KEL::DataTypeTextureRGBA::TheTypeGuid());
    auto onlyThumb = std::make_shared<KEL::Atom>();
    onlyThumb->AddDataLayer(kel_test::MakeTexture(8, 8, 1, KEL::PurposeGuid_THUMBNAIL), true);
    // A texture whose buffer does not match its size is not an image.
    auto broken = AtomWithImage(100, 100, std::vector<std::uint8_t>(10));
    EXPECT_FALSE(KEL::ThumbnailHelper::getThumbnail({noImage, nullptr, onlyThumb, broken}, false, false));
    // The first image in order is the source.
    const auto first = KEL::ThumbnailHelper::getThumbnail(
        {noImage, onlyThumb, broken, AtomWithImage(1, 1, {1, 2, 3, 4}), AtomWithImage(1, 1, {5, 6, 7, 8})}, false,
        false);
    ASSERT_TRUE(first);
    EXPECT_EQ(first->GetPixels().data()[0], 1);
    // An existing thumbnail is handed back as it is when asked for.
    EXPECT_EQ(KEL::ThumbnailHelper::getThumbnail({noImage, onlyThumb}, true, false), onlyThumb->GetAllDataLayers()[0]);
}
