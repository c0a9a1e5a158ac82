#include <KEL/PurposeGuids.h>
#include <KEL/ThumbnailHelper.h>

#include <algorithm>
#include <vector>

namespace KEL {

namespace {

bool IsUsableImage(const DataTypeTextureRGBA& t) {
    return t.GetWidth() > 0 && t.GetHeight() > 0 &&
           static_cast<std::uint64_t>(t.GetWidth()) * t.GetHeight() * 4 == t.GetPixels().size();
}

// Averages the source pixels covered by each destination pixel. Source
// columns and rows are split into `dst` nearly equal runs; each run has at
// least one pixel because dst <= src.
std::vector<std::uint8_t> BoxDownscale(const std::uint8_t* src, std::uint32_t sw, std::uint32_t sh, std::uint32_t dw,
                                       std::uint32_t dh) {
    std::vector<std::uint8_t> out(static_cast<std::size_t>(dw) * dh * 4);
    std::vector<std::uint32_t> x0(dw + 1);
    for (std::uint32_t x = 0; x <= dw; ++x) {
        x0[x] = static_cast<std::uint32_t>(static_cast<std::uint64_t>(x) * sw / dw);
    }
    for (std::uint32_t y = 0; y < dh; ++y) {
        const auto yBegin = static_cast<std::uint32_t>(static_cast<std::uint64_t>(y) * sh / dh);
        const auto yEnd = static_cast<std::uint32_t>(static_cast<std::uint64_t>(y + 1) * sh / dh);
        for (std::uint32_t x = 0; x < dw; ++x) {
            std::uint64_t sum[4] = {0, 0, 0, 0};
            for (std::uint32_t sy = yBegin; sy < yEnd; ++sy) {
                const std::uint8_t* row = src + (static_cast<std::size_t>(sy) * sw + x0[x]) * 4;
                for (std::uint32_t sx = x0[x]; sx < x0[x + 1]; ++sx, row += 4) {
                    sum[0] += row[0];
                    sum[1] += row[1];
                    sum[2] += row[2];
                    sum[3] += row[3];
                }
            }
            const std::uint64_t n = static_cast<std::uint64_t>(yEnd - yBegin) * (x0[x + 1] - x0[x]);
            std::uint8_t* dst = out.data() + (static_cast<std::size_t>(y) * dw + x) * 4;
            for (int c = 0; c < 4; ++c) {
                dst[c] = static_cast<std::uint8_t>((sum[c] + n / 2) / n);
            }
        }
    }
    return out;
}

}  // namespace

std::shared_ptr<DataTypeTextureRGBA> ThumbnailHelper::getThumbnail(const std::vector<std::shared_ptr<Atom>>& atoms,
                                                                   bool useExistingThumbnail, bool keepFullSize) {
    const auto& textureType = DataTypeTextureRGBA::TheTypeGuid();
    if (useExistingThumbnail) {
        for (const auto& atom : atoms) {
            if (!atom) {
                continue;
            }
            for (const auto& layer : atom->GetAllDataLayers()) {
                auto texture = LayerCast<DataTypeTextureRGBA>(layer);
                if (texture && texture->GetPurposeGuid() == PurposeGuid_THUMBNAIL && IsUsableImage(*texture)) {
                    return texture;
                }
            }
        }
    }
    for (const auto& atom : atoms) {
        if (!atom) {
            continue;
        }
        for (const auto& layer : atom->GetAllDataLayers()) {
            if (layer->GetTypeGuid() != textureType || layer->GetPurposeGuid() == PurposeGuid_THUMBNAIL) {
                continue;
            }
            auto image = LayerCast<DataTypeTextureRGBA>(layer);
            if (!image || !IsUsableImage(*image)) {
                continue;
            }
            const std::uint32_t w = image->GetWidth();
            const std::uint32_t h = image->GetHeight();
            const std::uint32_t longest = std::max(w, h);
            if (keepFullSize || longest <= kMaxSide) {
                return std::make_shared<DataTypeTextureRGBA>(w, h, image->GetPixels(), PurposeGuid_THUMBNAIL);
            }
            const auto tw = std::max<std::uint32_t>(
                1, static_cast<std::uint32_t>((static_cast<std::uint64_t>(w) * kMaxSide + longest / 2) / longest));
            const auto th = std::max<std::uint32_t>(
                1, static_cast<std::uint32_t>((static_cast<std::uint64_t>(h) * kMaxSide + longest / 2) / longest));
            auto pixels = BoxDownscale(image->GetPixels().data(), w, h, tw, th);
            return std::make_shared<DataTypeTextureRGBA>(tw, th, KelCommon::SharedBuffer::FromVector(std::move(pixels)),
                                                         PurposeGuid_THUMBNAIL);
        }
    }
    return nullptr;
}

}  // namespace KEL
