#include "Command.h"
#include "DirectoryConversion.h"

namespace KelTool {

Command AddConcatCommand(CLI::App& root, const GlobalOptions& global) {
    return AddDirectoryConversionCommand(
        root, global, "concat",
        "Join takes one after another (files or directories of them, the same streams) into one continuous recording",
        KelFrames::Layout::kSequence);
}

}  // namespace KelTool
