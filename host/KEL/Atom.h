#pragma once

#include <KEL/DataLayer.h>
#include <KelCommon/Export.h>
#include <KelCommon/Guid.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

namespace KEL {

// One frame of one stream: a stream id, an atom id, a frame number, a time
// stamp and an ordered list of data layers.
//
// An atom is not thread-safe; it belongs to one thread at a time. Layers are
// shared objects: copying an atom (Copy) never copies pixel or vertex data.
class KEL_API Atom {
public:
    using LayerPtr = std::shared_ptr<DataLayer>;
    using ConstLayerPredicate = std::function<bool(const std::shared_ptr<const DataLayer>&)>;

    // A new atom gets a process-wide unique id (increasing from 1).
    Atom(std::uint16_t streamId = 0, std::uint32_t frameNr = 0, std::int64_t timeStamp = 0);

    std::uint16_t GetStreamId() const noexcept { return streamId_; }
    void SetStreamId(std::uint16_t id) noexcept { streamId_ = id; }
    std::uint32_t GetId() const noexcept { return id_; }
    void SetId(std::uint32_t id) noexcept { id_ = id; }
    std::uint32_t GetFrameNr() const noexcept { return frameNr_; }
    void SetFrameNr(std::uint32_t frameNr) noexcept { frameNr_ = frameNr; }
    // Microseconds on the capture's clock.
    std::int64_t GetTimeStamp() const noexcept { return timeStamp_; }
    void SetTimeStamp(std::int64_t ts) noexcept { timeStamp_ = ts; }

    // Appends a layer at the end. With `shareLayer` true the given object
    // itself is added (it is then shared with whoever else holds it); with
    // false a clone is added (fields copied, payload buffers shared). An
    // empty layer is ignored. Existing layers of the same kind are kept.
    void AddDataLayer(const LayerPtr& layer, bool shareLayer);

    // The layers in order (a copy of the list; the layer objects are shared).
    std::vector<LayerPtr> GetAllDataLayers() const { return layers_; }
    std::size_t GetNumDataLayers() const noexcept { return layers_.size(); }

    // The first layer of the given type, or empty. With `detach` false the
    // atom's own layer object is returned, so changes to it are seen by every
    // atom that shares it. With `detach` true the atom first replaces that
    // layer by a private clone and returns the clone, which can be changed
    // without affecting other atoms.
    LayerPtr GetDataLayerByType(const KelCommon::Guid& typeGuid, bool detach);
    // The first layer with both the given purpose and type, or empty;
    // `detach` as above.
    LayerPtr GetDataLayer(const KelCommon::Guid& purposeGuid, const KelCommon::Guid& typeGuid, bool detach);

    // Remove layers; each returns how many it removed.
    std::size_t RemoveDataLayers(const KelCommon::Guid& typeGuid);
    std::size_t RemoveDataLayers(const KelCommon::Guid& purposeGuid, const KelCommon::Guid& typeGuid);
    std::size_t RemoveDataLayers(const KelCommon::Guid& typeGuid, const ConstLayerPredicate& predicate);

    // A new atom with the same stream id, id, time stamp and layers.
    // `frameNr` of -1 keeps the source's frame number, any other value sets
    // it (as an unsigned 32-bit number). With `cloneLayers` true each layer is
    // cloned (fields copied, payload shared), so the copy's layers can be
    // changed without touching the source's; with false the copy shares the
    // source's layer objects. Either way the layer list is the copy's own:
    // adding or removing layers never affects the source.
    static std::shared_ptr<Atom> Copy(const std::shared_ptr<Atom>& atom, int frameNr, bool cloneLayers);

    // Sum of the layers' payload sizes.
    std::uint64_t PayloadSize() const;

private:
    std::uint16_t streamId_;
    std::uint32_t id_;
    std::uint32_t frameNr_;
    std::int64_t timeStamp_;
    std::vector<LayerPtr> layers_;
};

using AtomPtr = std::shared_ptr<Atom>;

}  // namespace KEL
