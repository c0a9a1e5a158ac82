#pragma once

#include <KEL/Filter.h>
#include <KelCommon/Export.h>

#include "plugin/FilterClassBoilerplate.h"
#include "targets/TargetKEL2FileAsyncWriter.h"
#include "writers/BasicWriter.h"

namespace Kel2File {

// Records every input stream into one file while "Enable Recording" is on, writing on a thread of its own.
// The class constants are defined and registered by the plugin's filter
// registry at load.
class TargetKEL2FileWriterAsync final : public TargetKEL2FileAsyncWriter<BasicWriter> {
    KEL2FILE_FILTER_CLASS_MEMBERS()
};

}  // namespace Kel2File

// Creates a new, uninitialised filter; the caller owns it.
extern "C" KEL_API KEL::Filter* TargetKEL2FileWriterAsyncFilterCreator();
