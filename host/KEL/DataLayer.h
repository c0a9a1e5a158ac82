#pragma once

#include <KEL/DataProfile.h>
#include <KEL/LayerCodec.h>
#include <KelCommon/Export.h>
#include <KelCommon/Guid.h>

#include <cstdint>
#include <memory>
#include <string>

namespace KEL {

// A typed block of data inside an atom, identified by its data type GUID and
// its purpose GUID, with a format version.
//
// Layers are held by shared ownership and may be shared by several atoms
// (Atom::Copy, looseners). Large payloads live in SharedBuffers, so cloning a
// layer copies its small fields and shares its payload bytes. A layer that is
// shared must be treated as read-only; take a clone (or ask the atom for a
// detached layer) before changing it.
class KEL_API DataLayer {
public:
    virtual ~DataLayer() = default;

    const KelCommon::Guid& GetTypeGuid() const noexcept { return typeGuid_; }
    const KelCommon::Guid& GetPurposeGuid() const noexcept { return purposeGuid_; }
    void SetPurposeGuid(const KelCommon::Guid& purpose) noexcept { purposeGuid_ = purpose; }
    std::uint16_t GetVersion() const noexcept { return version_; }
    void SetVersion(std::uint16_t version) noexcept { version_ = version; }

    // A new DataProfile describing this layer's type, purpose and version.
    std::shared_ptr<DataProfile> GetDataProfile() const;

    // A copy of this layer: same type, purpose, version and fields, sharing
    // the payload buffers.
    virtual std::shared_ptr<DataLayer> Clone() const = 0;

    // Short human name of the layer type ("TextureRGBA", "Mesh", ...).
    virtual std::string TypeName() const = 0;

    // Content encoding for the container file (see LayerCodec.h). DecodeFields
    // returns false when the encoded content is malformed; the layer is then
    // in an unspecified but valid state and must be discarded.
    virtual void EncodeFields(LayerEncoder& encoder) const = 0;
    virtual bool DecodeFields(LayerDecoder& decoder) = 0;

    // Total size in bytes of the layer's payload buffers.
    virtual std::uint64_t PayloadSize() const { return 0; }

    // Content equality: same type, purpose, version and encoded content.
    bool ContentEquals(const DataLayer& other) const;

protected:
    DataLayer(const KelCommon::Guid& typeGuid, const KelCommon::Guid& purposeGuid, std::uint16_t version)
        : typeGuid_(typeGuid), purposeGuid_(purposeGuid), version_(version) {}
    DataLayer(const DataLayer&) = default;
    DataLayer& operator=(const DataLayer&) = default;

private:
    KelCommon::Guid typeGuid_;
    KelCommon::Guid purposeGuid_;
    std::uint16_t version_;
};

// Type-checked downcast: empty when `layer` is empty or not of type T
// (judged by T::TheTypeGuid(), not by RTTI, so layers from any library agree).
template <typename T>
std::shared_ptr<T> LayerCast(const std::shared_ptr<DataLayer>& layer) {
    if (!layer || layer->GetTypeGuid() != T::TheTypeGuid()) {
        return nullptr;
    }
    return std::dynamic_pointer_cast<T>(layer);
}
template <typename T>
std::shared_ptr<const T> LayerCast(const std::shared_ptr<const DataLayer>& layer) {
    if (!layer || layer->GetTypeGuid() != T::TheTypeGuid()) {
        return nullptr;
    }
    return std::dynamic_pointer_cast<const T>(layer);
}

// Helper for the typed layers: Clone through the copy constructor.
template <typename Derived>
class DataLayerBase : public DataLayer {
public:
    std::shared_ptr<DataLayer> Clone() const override {
        return std::make_shared<Derived>(static_cast<const Derived&>(*this));
    }

protected:
    using DataLayer::DataLayer;
};

}  // namespace KEL
