#include "Command.h"
#include "DirectoryConversion.h"

namespace KelTool {

Command AddMergeCommand(CLI::App& root, const GlobalOptions& global) {
    return AddDirectoryConversionCommand(root, global, "merge",
                                         "Merge per-stream files of a directory into one multi-stream file",
                                         "SourceKEL2MultiFileReader");
}

}  // namespace KelTool
