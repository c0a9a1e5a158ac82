#pragma once

#include <string>

#include "Command.h"
#include "frames/FrameReader.h"

namespace KelTool {

// `kel concat` and `kel merge` differ only in how they lay out the files
// they join: one after another, or side by side.
Command AddDirectoryConversionCommand(CLI::App& root, const GlobalOptions& global, const std::string& name,
                                      const std::string& description, KelFrames::Layout layout);

}  // namespace KelTool
