#include "AtomDifference.h"

#include <KEL/LayerCodec.h>

#include <algorithm>
#include <cstring>

namespace KelTool {

namespace {

bool SameBytes(const KelCommon::SharedBuffer& a, const KelCommon::SharedBuffer& b) {
    return a.size() == b.size() && (a.size() == 0 || std::memcmp(a.data(), b.data(), a.size()) == 0);
}

bool SameLayer(const KEL::DataLayer& x, const KEL::DataLayer& y) {
    if (x.GetTypeGuid() != y.GetTypeGuid() || x.GetPurposeGuid() != y.GetPurposeGuid() ||
        x.GetVersion() != y.GetVersion()) {
        return false;
    }
    KEL::LayerEncoder ex;
    KEL::LayerEncoder ey;
    x.EncodeFields(ex);
    y.EncodeFields(ey);
    return ex.Fields() == ey.Fields() && ex.Blobs().size() == ey.Blobs().size() &&
           std::equal(ex.Blobs().begin(), ex.Blobs().end(), ey.Blobs().begin(), SameBytes);
}

}  // namespace

std::string AtomDifference(const KEL::Atom& a, const KEL::Atom& b) {
    if (a.GetStreamId() != b.GetStreamId() || a.GetFrameNr() != b.GetFrameNr()) {
        return "stream or frame number";
    }
    if (a.GetTimeStamp() != b.GetTimeStamp()) {
        return "time stamp (" + std::to_string(a.GetTimeStamp()) + " vs " + std::to_string(b.GetTimeStamp()) + ")";
    }
    const auto layersA = a.GetAllDataLayers();
    auto unmatched = b.GetAllDataLayers();
    if (layersA.size() != unmatched.size()) {
        return "number of layers (" + std::to_string(layersA.size()) + " vs " + std::to_string(unmatched.size()) + ")";
    }
    // Layers match in any order: where a writer or a source put a restored
    // layer says nothing about the content.
    for (const auto& layer : layersA) {
        const auto match = std::find_if(unmatched.begin(), unmatched.end(),
                                        [&](const auto& other) { return SameLayer(*layer, *other); });
        if (match == unmatched.end()) {
            return "layer " + layer->TypeName() + " (" + std::to_string(layer->GetVersion()) +
                   ") has no equal in the other atom";
        }
        unmatched.erase(match);
    }
    return {};
}

}  // namespace KelTool
