#pragma once

#include <KEL/DataLayer.h>
#include <KelCommon/Export.h>
#include <KelCommon/Guid.h>

#include <functional>
#include <memory>
#include <vector>

namespace KEL {

// Maps data type GUIDs to factories of empty layers, so the container reader
// can rebuild typed layers. The host's own types are registered at start-up;
// a plugin can register its own. Thread-safe.
class KEL_API DataLayerRegistry {
public:
    using Factory = std::function<std::shared_ptr<DataLayer>()>;

    static DataLayerRegistry& Instance();

    // Returns false (and changes nothing) when the GUID is already taken.
    bool Register(const KelCommon::Guid& typeGuid, Factory factory);
    // An empty layer of that type (purpose and version to be set by the
    // caller), or empty for an unknown type.
    std::shared_ptr<DataLayer> Create(const KelCommon::Guid& typeGuid) const;

    // Rebuilds a layer from its stored parts: a typed layer when the type is
    // registered and its content decodes, a DataTypeOpaque for an unknown
    // type, and empty for a known type whose content is malformed.
    std::shared_ptr<DataLayer> Decode(const KelCommon::Guid& typeGuid, const KelCommon::Guid& purposeGuid,
                                      std::uint16_t version, const std::uint8_t* fields, std::size_t fieldsSize,
                                      std::vector<KelCommon::SharedBuffer> blobs) const;

private:
    DataLayerRegistry();
    struct Impl;
    std::shared_ptr<Impl> impl_;
};

}  // namespace KEL
