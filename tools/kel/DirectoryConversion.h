#pragma once

#include <string>

#include "Command.h"

namespace KelTool {

// `kel concat` and `kel merge` differ only in the source that reads the
// directory: one plays its files one after another, the other side by side.
Command AddDirectoryConversionCommand(CLI::App& root, const GlobalOptions& global, const std::string& name,
                                      const std::string& description, const std::string& sourceClass);

}  // namespace KelTool
