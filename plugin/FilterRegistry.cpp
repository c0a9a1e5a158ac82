// Registers the plugin's filter classes with the host's filter factory when
// the library is loaded.
//
// Every class keeps three class-wide constants: its type GUID (sTypeGuid),
// its class information (sFilterClassInfo: display name and category) and
// the id the factory returned (sRegistrationId, kept but not otherwise used).
// All of them are defined here, in one translation unit, because the order
// of dynamic initialisation is only defined within a unit: each class's block
// parses the GUID, then builds the class information, then registers both
// (the factory takes copies) with the class's exported creator, and the
// registration can rely on the two constants above it being ready.
//
// The display name is the class name; sources are in the source category,
// targets in the target category.

#include <KEL/FilterClassInfo.h>

#include "plugin/FilterClassBoilerplate.h"
#include "sources/SourceKEL2FileReader.h"
#include "sources/SourceKEL2MultiFileAppend.h"
#include "sources/SourceKEL2MultiFileReader.h"
#include "targets/TargetKEL2FilePerStreamSnapshotWriter.h"
#include "targets/TargetKEL2FilePerStreamSnapshotWriterAsync.h"
#include "targets/TargetKEL2FilePerStreamWriter.h"
#include "targets/TargetKEL2FilePerStreamWriterAsync.h"
#include "targets/TargetKEL2FileSnapshotWriter.h"
#include "targets/TargetKEL2FileSnapshotWriterAsync.h"
#include "targets/TargetKEL2FileWriter.h"
#include "targets/TargetKEL2FileWriterAsync.h"

namespace Kel2File {

// ---------------------------------------------------------------------------
// Sources
// ---------------------------------------------------------------------------

KEL2FILE_REGISTER_FILTER_CLASS(SourceKEL2FileReader, "B74863F3-13CF-47A0-9F90-07718FC52AB6",
                               KEL::FILTER_CATEGORY_SOURCE);
KEL2FILE_REGISTER_FILTER_CLASS(SourceKEL2MultiFileAppend, "757504F3-A320-43A6-BFD1-9ACE60EDEB7E",
                               KEL::FILTER_CATEGORY_SOURCE);
KEL2FILE_REGISTER_FILTER_CLASS(SourceKEL2MultiFileReader, "6D82A817-BAC2-4277-B599-7848F2170ADD",
                               KEL::FILTER_CATEGORY_SOURCE);

// ---------------------------------------------------------------------------
// Targets
// ---------------------------------------------------------------------------

KEL2FILE_REGISTER_FILTER_CLASS(TargetKEL2FileWriter, "972EE495-EB8E-48A8-AB94-43797E34A436",
                               KEL::FILTER_CATEGORY_TARGET);
KEL2FILE_REGISTER_FILTER_CLASS(TargetKEL2FileWriterAsync, "3802D826-7D62-41BF-A92E-6A56E3700590",
                               KEL::FILTER_CATEGORY_TARGET);
KEL2FILE_REGISTER_FILTER_CLASS(TargetKEL2FileSnapshotWriter, "5F18B69C-472C-4BF7-902C-593A24A53267",
                               KEL::FILTER_CATEGORY_TARGET);
KEL2FILE_REGISTER_FILTER_CLASS(TargetKEL2FileSnapshotWriterAsync, "990F8140-8912-464F-B85A-6AB300AD0E37",
                               KEL::FILTER_CATEGORY_TARGET);
KEL2FILE_REGISTER_FILTER_CLASS(TargetKEL2FilePerStreamWriter, "C6AB7E7D-E3E2-4E3A-ACAF-9A4DD28B318B",
                               KEL::FILTER_CATEGORY_TARGET);
KEL2FILE_REGISTER_FILTER_CLASS(TargetKEL2FilePerStreamWriterAsync, "9F77FB3F-F205-491D-A12C-14B3266F700B",
                               KEL::FILTER_CATEGORY_TARGET);
KEL2FILE_REGISTER_FILTER_CLASS(TargetKEL2FilePerStreamSnapshotWriter, "A74FA620-53CD-461A-A512-3217F1271DC3",
                               KEL::FILTER_CATEGORY_TARGET);
KEL2FILE_REGISTER_FILTER_CLASS(TargetKEL2FilePerStreamSnapshotWriterAsync, "BEF1EC5E-D302-4BAD-B771-88D0E404035C",
                               KEL::FILTER_CATEGORY_TARGET);

}  // namespace Kel2File
