#include "Command.h"
#include "DirectoryConversion.h"

namespace KelTool {

Command AddMergeCommand(CLI::App& root, const GlobalOptions& global) {
    return AddDirectoryConversionCommand(
        root, global, "merge",
        "Join files holding different streams (files or directories of them) side by side into one recording",
        KelFrames::Layout::kSideBySide);
}

}  // namespace KelTool
