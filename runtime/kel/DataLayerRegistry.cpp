#include <KEL/DataLayerRegistry.h>
#include <KEL/DataTypeBinary.h>
#include <KEL/DataTypeCameraParams.h>
#include <KEL/DataTypeCylinderCrop.h>
#include <KEL/DataTypeMesh.h>
#include <KEL/DataTypeOpaque.h>
#include <KEL/DataTypeRecordingInfo.h>
#include <KEL/DataTypeStaticInfo.h>
#include <KEL/DataTypeStreamInfo.h>
#include <KEL/DataTypeTextureRGBA.h>

#include <mutex>
#include <unordered_map>

namespace KEL {

struct DataLayerRegistry::Impl {
    mutable std::mutex mutex;
    std::unordered_map<KelCommon::Guid, Factory> factories;
};

DataLayerRegistry::DataLayerRegistry() : impl_(std::make_shared<Impl>()) {
    auto add = [this](const KelCommon::Guid& guid, Factory f) { Register(guid, std::move(f)); };
    add(DataTypeStreamInfo::TheTypeGuid(), [] { return std::make_shared<DataTypeStreamInfo>(); });
    add(DataTypeRecordingInfo::TheTypeGuid(), [] { return std::make_shared<DataTypeRecordingInfo>(); });
    add(DataTypeStaticInfo::TheTypeGuid(), [] { return std::make_shared<DataTypeStaticInfo>(); });
    add(DataTypeBinary::TheTypeGuid(), [] { return std::make_shared<DataTypeBinary>(); });
    add(DataTypeCameraParams::TheTypeGuid(), [] { return std::make_shared<DataTypeCameraParams>(); });
    add(DataTypeCylinderCrop::TheTypeGuid(), [] { return std::make_shared<DataTypeCylinderCrop>(); });
    add(DataTypeTextureRGBA::TheTypeGuid(), [] { return std::make_shared<DataTypeTextureRGBA>(); });
    add(DataTypeMesh::TheTypeGuid(), [] { return std::make_shared<DataTypeMesh>(); });
}

DataLayerRegistry& DataLayerRegistry::Instance() {
    static DataLayerRegistry instance;
    return instance;
}

bool DataLayerRegistry::Register(const KelCommon::Guid& typeGuid, Factory factory) {
    std::lock_guard lock(impl_->mutex);
    if (!factory || impl_->factories.count(typeGuid) != 0) {
        return false;
    }
    impl_->factories.emplace(typeGuid, std::move(factory));
    return true;
}

std::shared_ptr<DataLayer> DataLayerRegistry::Create(const KelCommon::Guid& typeGuid) const {
    Factory factory;
    {
        std::lock_guard lock(impl_->mutex);
        auto it = impl_->factories.find(typeGuid);
        if (it == impl_->factories.end()) {
            return nullptr;
        }
        factory = it->second;
    }
    return factory();
}

std::shared_ptr<DataLayer> DataLayerRegistry::Decode(const KelCommon::Guid& typeGuid,
                                                     const KelCommon::Guid& purposeGuid, std::uint16_t version,
                                                     const std::uint8_t* fields, std::size_t fieldsSize,
                                                     std::vector<KelCommon::SharedBuffer> blobs) const {
    auto layer = Create(typeGuid);
    if (!layer) {
        return std::make_shared<DataTypeOpaque>(
            typeGuid, purposeGuid, version, std::vector<std::uint8_t>(fields, fields + fieldsSize), std::move(blobs));
    }
    layer->SetPurposeGuid(purposeGuid);
    layer->SetVersion(version);
    LayerDecoder decoder(fields, fieldsSize, std::move(blobs));
    if (!layer->DecodeFields(decoder) || !decoder.Ok() || decoder.Remaining() != 0) {
        return nullptr;
    }
    return layer;
}

}  // namespace KEL
