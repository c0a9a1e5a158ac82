#pragma once

#include <KEL/Atom.h>

#include <string>

namespace KelTool {

// What differs between the content of two atoms: their stream, frame number
// or time stamp, or their layers, matched in any order (type, purpose,
// version, every field and payload byte as the container stores them). ""
// when the content is the same, however the bytes lie in their files.
std::string AtomDifference(const KEL::Atom& a, const KEL::Atom& b);

}  // namespace KelTool
