#pragma once

#include <KEL/Atom.h>
#include <KEL/DataTypeTextureRGBA.h>

#include <memory>

namespace KelTool {

// The picture of a frame: the atom's first RGBA texture that is not a
// thumbnail, or its thumbnail when that is the only image; empty when the
// atom carries no image.
std::shared_ptr<KEL::DataTypeTextureRGBA> FindFrameImage(const KEL::Atom& atom);

}  // namespace KelTool
