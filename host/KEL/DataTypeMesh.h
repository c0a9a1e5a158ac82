#pragma once

#include <KEL/DataLayer.h>
#include <KelCommon/SharedBuffer.h>

#include <cstdint>
#include <span>

namespace KEL {

// A triangle mesh: vertex positions (3 floats each), triangle indices
// (3 uint32 each, into the vertices) and optional texture coordinates
// (2 floats per vertex). Buffers hold little-endian values.
class KEL_API DataTypeMesh : public DataLayerBase<DataTypeMesh> {
public:
    static const KelCommon::Guid& TheTypeGuid();

    DataTypeMesh(KelCommon::SharedBuffer vertices = {}, KelCommon::SharedBuffer indices = {},
                 KelCommon::SharedBuffer texCoords = {}, const KelCommon::Guid& purpose = {});

    const KelCommon::SharedBuffer& GetVertices() const noexcept { return vertices_; }
    const KelCommon::SharedBuffer& GetIndices() const noexcept { return indices_; }
    const KelCommon::SharedBuffer& GetTexCoords() const noexcept { return texCoords_; }
    std::size_t GetNumVertices() const noexcept { return vertices_.size() / (3 * sizeof(float)); }
    std::size_t GetNumTriangles() const noexcept { return indices_.size() / (3 * sizeof(std::uint32_t)); }

    std::string TypeName() const override { return "Mesh"; }
    void EncodeFields(LayerEncoder& encoder) const override;
    // Fails when a buffer's size is not a whole number of its elements, or
    // texture coordinates are present but not one pair per vertex.
    bool DecodeFields(LayerDecoder& decoder) override;
    std::uint64_t PayloadSize() const override { return vertices_.size() + indices_.size() + texCoords_.size(); }

private:
    KelCommon::SharedBuffer vertices_;
    KelCommon::SharedBuffer indices_;
    KelCommon::SharedBuffer texCoords_;
};

}  // namespace KEL
