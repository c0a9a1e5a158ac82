#pragma once

#include <KEL/Atom.h>
#include <KelCommon/Guid.h>

#include <cstdint>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "container/ContainerFormat.h"

namespace KEL::container {

// Collects what the XML companion of a container describes (streams, frame
// counts and ranges, time-stamp ranges, layer kinds with purposes and payload
// sizes) while atoms are written, and renders the companion at close.
// docs/container-format.md gives the schema. One thread at a time.
class XmlCompanion {
public:
    // Accounts for one atom that has been stored in the container under
    // `key` with `layers`.
    void AddAtom(const AtomKey& key, const std::vector<Atom::LayerPtr>& layers);

    // The companion's text for the container file `containerPath` of
    // `fileSize` bytes, whose header carries `fileId` and `createdUs`.
    std::string Render(const std::string& containerPath, std::uint64_t fileSize, std::uint64_t fileId,
                       std::int64_t createdUs) const;

private:
    struct LayerKind {
        std::string typeName;
        KelCommon::Guid typeGuid;
        KelCommon::Guid purposeGuid;
        std::uint16_t version = 0;
        std::uint64_t atoms = 0;
        std::uint64_t payloadBytes = 0;
    };
    struct StreamSummary {
        std::uint16_t id = 0;
        std::uint64_t atoms = 0;
        std::uint32_t firstFrame = 0;
        std::uint32_t lastFrame = 0;
        std::int64_t firstTimeStamp = 0;
        std::int64_t lastTimeStamp = 0;
        std::uint64_t payloadBytes = 0;
        std::vector<LayerKind> layers;
        std::map<std::tuple<KelCommon::Guid, KelCommon::Guid, std::uint16_t>, std::size_t> layerIndex;
    };

    std::vector<StreamSummary> streams_;
    std::map<std::uint16_t, std::size_t> streamIndex_;
    std::uint64_t atoms_ = 0;
};

}  // namespace KEL::container
