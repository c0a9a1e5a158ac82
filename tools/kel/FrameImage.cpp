#include "FrameImage.h"

#include <KEL/PurposeGuids.h>

namespace KelTool {

std::shared_ptr<KEL::DataTypeTextureRGBA> FindFrameImage(const KEL::Atom& atom) {
    std::shared_ptr<KEL::DataTypeTextureRGBA> thumbnail;
    for (const auto& layer : atom.GetAllDataLayers()) {
        auto texture = KEL::LayerCast<KEL::DataTypeTextureRGBA>(layer);
        if (!texture) {
            continue;
        }
        if (texture->GetPurposeGuid() != KEL::PurposeGuid_THUMBNAIL) {
            return texture;
        }
        if (!thumbnail) {
            thumbnail = texture;
        }
    }
    return thumbnail;
}

}  // namespace KelTool
