#pragma once

#include <KEL/Filter.h>
#include <KelCommon/Export.h>

#include "plugin/FilterClassBoilerplate.h"
#include "targets/TargetKEL2FileAsyncWriter.h"
#include "writers/SnapshotWriter.h"

namespace Kel2File {

// Writes bursts of "Frames count per snapshot" frames into one file opened at play, on a thread of its own.
// The class constants are defined and registered by the plugin's filter
// registry at load.
class TargetKEL2FileSnapshotWriterAsync final : public TargetKEL2FileAsyncWriter<SnapshotWriter> {
    KEL2FILE_FILTER_CLASS_MEMBERS()
};

}  // namespace Kel2File

// Creates a new, uninitialised filter; the caller owns it.
extern "C" KEL_API KEL::Filter* TargetKEL2FileSnapshotWriterAsyncFilterCreator();
