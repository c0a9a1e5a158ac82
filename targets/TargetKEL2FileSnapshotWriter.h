#pragma once

#include <KEL/Filter.h>
#include <KEL/FilterClassInfo.h>
#include <KelCommon/Export.h>
#include <KelCommon/Guid.h>

#include <cstddef>

#include "targets/TargetKEL2FileSyncWriter.h"
#include "writers/SnapshotWriter.h"

namespace Kel2File {

// Writes bursts of "Frames count per snapshot" frames into one file opened at play, on the graph thread.
// The class constants are defined and registered by the plugin's filter
// registry at load.
class TargetKEL2FileSnapshotWriter final : public TargetKEL2FileSyncWriter<SnapshotWriter> {
public:
    static KelCommon::Guid sTypeGuid;
    static KEL::FilterClassInfo sFilterClassInfo;
    static int sRegistrationId;

    static KelCommon::Guid TheTypeGuid() { return sTypeGuid; }
    static KEL::FilterClassInfo TheFilterClassInfo() { return sFilterClassInfo; }
    KelCommon::Guid TypeGuid() const override { return sTypeGuid; }
    KEL::FilterClassInfo GetFilterClassInfo() const override { return sFilterClassInfo; }

    static void* operator new(std::size_t size);
    static void* operator new(std::size_t size, void* where) noexcept;
    static void operator delete(void* memory) noexcept;
    static void operator delete(void* memory, void* where) noexcept;
};

}  // namespace Kel2File

// Creates a new, uninitialised filter; the caller owns it.
extern "C" KEL_API KEL::Filter* TargetKEL2FileSnapshotWriterFilterCreator();
