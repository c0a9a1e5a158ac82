#pragma once

#include <KEL/Filter.h>
#include <KelCommon/Export.h>

#include "plugin/FilterClassBoilerplate.h"
#include "targets/TargetKEL2FileSyncWriter.h"
#include "writers/PerStreamSnapshotWriter.h"

namespace Kel2File {

// Writes snapshot bursts into one file per input stream, on the graph thread.
// The class constants are defined and registered by the plugin's filter
// registry at load.
class TargetKEL2FilePerStreamSnapshotWriter final : public TargetKEL2FileSyncWriter<PerStreamSnapshotWriter> {
    KEL2FILE_FILTER_CLASS_MEMBERS()
};

}  // namespace Kel2File

// Creates a new, uninitialised filter; the caller owns it.
extern "C" KEL_API KEL::Filter* TargetKEL2FilePerStreamSnapshotWriterFilterCreator();
