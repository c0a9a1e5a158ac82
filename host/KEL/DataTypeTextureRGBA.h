#pragma once

#include <KEL/DataLayer.h>
#include <KelCommon/SharedBuffer.h>

#include <cstdint>

namespace KEL {

// An 8-bit-per-channel RGBA image, rows top to bottom, no padding: the pixel
// buffer holds exactly width * height * 4 bytes.
class KEL_API DataTypeTextureRGBA : public DataLayerBase<DataTypeTextureRGBA> {
public:
    static const KelCommon::Guid& TheTypeGuid();

    DataTypeTextureRGBA(std::uint32_t width = 0, std::uint32_t height = 0, KelCommon::SharedBuffer pixels = {},
                        const KelCommon::Guid& purpose = {});

    std::uint32_t GetWidth() const noexcept { return width_; }
    std::uint32_t GetHeight() const noexcept { return height_; }
    const KelCommon::SharedBuffer& GetPixels() const noexcept { return pixels_; }

    std::string TypeName() const override { return "TextureRGBA"; }
    void EncodeFields(LayerEncoder& encoder) const override;
    // Fails when the pixel buffer's size is not width * height * 4.
    bool DecodeFields(LayerDecoder& decoder) override;
    std::uint64_t PayloadSize() const override { return pixels_.size(); }

private:
    std::uint32_t width_;
    std::uint32_t height_;
    KelCommon::SharedBuffer pixels_;
};

}  // namespace KEL
