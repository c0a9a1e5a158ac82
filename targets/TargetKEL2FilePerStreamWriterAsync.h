#pragma once

#include <KEL/Filter.h>
#include <KEL/FilterClassInfo.h>
#include <KelCommon/Export.h>
#include <KelCommon/Guid.h>

#include <cstddef>

#include "targets/TargetKEL2FileAsyncWriter.h"
#include "writers/PerStreamWriter.h"

namespace Kel2File {

// Records each input stream into a file of its own while "Enable Recording" is on, writing on a thread of its own.
// The class constants are defined and registered by the plugin's filter
// registry at load.
class TargetKEL2FilePerStreamWriterAsync final : public TargetKEL2FileAsyncWriter<PerStreamWriter> {
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
extern "C" KEL_API KEL::Filter* TargetKEL2FilePerStreamWriterAsyncFilterCreator();
