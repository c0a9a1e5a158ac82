#include <KEL/Atom.h>

#include <algorithm>
#include <atomic>

namespace KEL {

namespace {
std::atomic<std::uint32_t> nextAtomId{1};

template <typename Pred>
std::size_t RemoveIf(std::vector<Atom::LayerPtr>& layers, Pred pred) {
    const auto before = layers.size();
    layers.erase(std::remove_if(layers.begin(), layers.end(), pred), layers.end());
    return before - layers.size();
}
}  // namespace

Atom::Atom(std::uint16_t streamId, std::uint32_t frameNr, std::int64_t timeStamp)
    : streamId_(streamId), id_(nextAtomId.fetch_add(1)), frameNr_(frameNr), timeStamp_(timeStamp) {}

void Atom::AddDataLayer(const LayerPtr& layer, bool shareLayer) {
    if (!layer) {
        return;
    }
    layers_.push_back(shareLayer ? layer : layer->Clone());
}

Atom::LayerPtr Atom::GetDataLayerByType(const KelCommon::Guid& typeGuid, bool detach) {
    for (auto& layer : layers_) {
        if (layer->GetTypeGuid() == typeGuid) {
            if (detach) {
                layer = layer->Clone();
            }
            return layer;
        }
    }
    return nullptr;
}

Atom::LayerPtr Atom::GetDataLayer(const KelCommon::Guid& purposeGuid, const KelCommon::Guid& typeGuid, bool detach) {
    for (auto& layer : layers_) {
        if (layer->GetTypeGuid() == typeGuid && layer->GetPurposeGuid() == purposeGuid) {
            if (detach) {
                layer = layer->Clone();
            }
            return layer;
        }
    }
    return nullptr;
}

std::size_t Atom::RemoveDataLayers(const KelCommon::Guid& typeGuid) {
    return RemoveIf(layers_, [&](const LayerPtr& l) { return l->GetTypeGuid() == typeGuid; });
}

std::size_t Atom::RemoveDataLayers(const KelCommon::Guid& purposeGuid, const KelCommon::Guid& typeGuid) {
    return RemoveIf(
        layers_, [&](const LayerPtr& l) { return l->GetTypeGuid() == typeGuid && l->GetPurposeGuid() == purposeGuid; });
}

std::size_t Atom::RemoveDataLayers(const KelCommon::Guid& typeGuid, const ConstLayerPredicate& predicate) {
    return RemoveIf(layers_, [&](const LayerPtr& l) {
        return l->GetTypeGuid() == typeGuid && (!predicate || predicate(std::shared_ptr<const DataLayer>(l)));
    });
}

std::shared_ptr<Atom> Atom::Copy(const std::shared_ptr<Atom>& atom, int frameNr, bool cloneLayers) {
    if (!atom) {
        return nullptr;
    }
    auto copy = std::make_shared<Atom>(*atom);
    if (frameNr != -1) {
        copy->frameNr_ = static_cast<std::uint32_t>(frameNr);
    }
    if (cloneLayers) {
        for (auto& layer : copy->layers_) {
            layer = layer->Clone();
        }
    }
    return copy;
}

std::uint64_t Atom::PayloadSize() const {
    std::uint64_t total = 0;
    for (const auto& layer : layers_) {
        total += layer->PayloadSize();
    }
    return total;
}

}  // namespace KEL
