#include <KEL/DataLayer.h>

namespace KEL {

std::shared_ptr<DataProfile> DataLayer::GetDataProfile() const {
    return std::make_shared<DataProfile>(typeGuid_, purposeGuid_, version_);
}

bool DataLayer::ContentEquals(const DataLayer& other) const {
    if (typeGuid_ != other.typeGuid_ || purposeGuid_ != other.purposeGuid_ || version_ != other.version_) {
        return false;
    }
    LayerEncoder mine;
    LayerEncoder theirs;
    EncodeFields(mine);
    other.EncodeFields(theirs);
    if (mine.Fields() != theirs.Fields() || mine.Blobs().size() != theirs.Blobs().size()) {
        return false;
    }
    for (std::size_t i = 0; i < mine.Blobs().size(); ++i) {
        if (!mine.Blobs()[i].ContentEquals(theirs.Blobs()[i])) {
            return false;
        }
    }
    return true;
}

}  // namespace KEL
