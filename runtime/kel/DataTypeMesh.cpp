#include <KEL/DataTypeMesh.h>

namespace KEL {

const KelCommon::Guid& DataTypeMesh::TheTypeGuid() {
    static const KelCommon::Guid guid = KelCommon::Guid::FromHexString("B184C3D9-E572-44F1-B6D8-93C4F5E67789");
    return guid;
}

DataTypeMesh::DataTypeMesh(KelCommon::SharedBuffer vertices, KelCommon::SharedBuffer indices,
                           KelCommon::SharedBuffer texCoords, const KelCommon::Guid& purpose)
    : DataLayerBase(TheTypeGuid(), purpose, 1),
      vertices_(std::move(vertices)),
      indices_(std::move(indices)),
      texCoords_(std::move(texCoords)) {}

void DataTypeMesh::EncodeFields(LayerEncoder& encoder) const {
    encoder.PutBlob(vertices_, BlobKind::kFloat32);
    encoder.PutBlob(indices_, BlobKind::kIndices32);
    encoder.PutBlob(texCoords_, BlobKind::kFloat32);
}

bool DataTypeMesh::DecodeFields(LayerDecoder& decoder) {
    vertices_ = decoder.GetBlob();
    indices_ = decoder.GetBlob();
    texCoords_ = decoder.GetBlob();
    if (!decoder.Ok()) {
        return false;
    }
    const bool shapesOk = vertices_.size() % (3 * sizeof(float)) == 0 &&
                          indices_.size() % (3 * sizeof(std::uint32_t)) == 0 &&
                          (texCoords_.empty() || texCoords_.size() == GetNumVertices() * 2 * sizeof(float));
    if (!shapesOk) {
        decoder.Fail();
    }
    return decoder.Ok();
}

}  // namespace KEL
