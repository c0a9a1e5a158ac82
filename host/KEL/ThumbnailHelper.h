#pragma once

#include <KEL/Atom.h>
#include <KEL/DataTypeTextureRGBA.h>
#include <KelCommon/Export.h>

#include <memory>
#include <vector>

namespace KEL {

// Makes preview images of atoms.
class KEL_API ThumbnailHelper {
public:
    static constexpr std::uint32_t kMaxSide = 256;

    // A thumbnail of the first image found in `atoms` (in order, the first
    // RGBA texture that is not itself a thumbnail): an RGBA texture whose
    // longest side is at most kMaxSide pixels with the aspect ratio kept
    // (each side at least 1), made by averaging the source pixels that fall
    // into each thumbnail pixel (a box filter). Its purpose is the thumbnail
    // purpose. Empty when no atom has an image.
    //
    // `useExistingThumbnail`: when true and an atom already carries a
    // thumbnail, that thumbnail is returned as it is.
    // `keepFullSize`: when true the image is not scaled down.
    static std::shared_ptr<DataTypeTextureRGBA> getThumbnail(const std::vector<std::shared_ptr<Atom>>& atoms,
                                                             bool useExistingThumbnail, bool keepFullSize);
};

}  // namespace KEL
