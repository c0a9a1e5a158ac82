#include "plugin/PluginDescriptor.h"

#include <KEL/KelVersion.h>

namespace Kel2File {

const KelCommon::VersionInfo KEL2FILE_VERSION(3, 3, 1);

}  // namespace Kel2File

// Built at load from the plugin's version and the framework version this
// library was compiled against.
extern "C" {
__attribute__((visibility("default"))) KEL::PluginInfo kel_plugin{

    "KEL2File",
    Kel2File::KEL2FILE_VERSION.ToString(),
    KEL::KEL_COMPILE_VERSION,
    KEL_VERSION_TAG,
};
}
