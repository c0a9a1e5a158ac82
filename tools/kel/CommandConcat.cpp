#include "Command.h"
#include "DirectoryConversion.h"

namespace KelTool {

Command AddConcatCommand(CLI::App& root, const GlobalOptions& global) {
    return AddDirectoryConversionCommand(
        root, global, "concat",
        "Join the files of a directory (same streams, in name order) into one continuous recording",
        "SourceKEL2MultiFileAppend");
}

}  // namespace KelTool
