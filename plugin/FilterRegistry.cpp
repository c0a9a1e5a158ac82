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
#include <KEL/FilterFactory.h>
#include <KelCommon/Guid.h>

#include "sources/SourceKEL2FileReader.h"
#include "sources/SourceKEL2MultiFileAppend.h"
#include "sources/SourceKEL2MultiFileReader.h"

// NOLINTBEGIN(cert-err58-cpp)
namespace Kel2File {

// ---------------------------------------------------------------------------
// Sources
// ---------------------------------------------------------------------------

KelCommon::Guid SourceKEL2FileReader::sTypeGuid =
    KelCommon::Guid::FromHexString("B74863F3-13CF-47A0-9F90-07718FC52AB6");
KEL::FilterClassInfo SourceKEL2FileReader::sFilterClassInfo("SourceKEL2FileReader", KEL::FILTER_CATEGORY_SOURCE);
int SourceKEL2FileReader::sRegistrationId = KEL::FilterFactory::RegisterFilterClass(
    KelCommon::Guid(SourceKEL2FileReader::sTypeGuid), KEL::FilterClassInfo(SourceKEL2FileReader::sFilterClassInfo),
    &SourceKEL2FileReaderFilterCreator);

KelCommon::Guid SourceKEL2MultiFileAppend::sTypeGuid =
    KelCommon::Guid::FromHexString("757504F3-A320-43A6-BFD1-9ACE60EDEB7E");
KEL::FilterClassInfo SourceKEL2MultiFileAppend::sFilterClassInfo("SourceKEL2MultiFileAppend",
                                                                 KEL::FILTER_CATEGORY_SOURCE);
int SourceKEL2MultiFileAppend::sRegistrationId = KEL::FilterFactory::RegisterFilterClass(
    KelCommon::Guid(SourceKEL2MultiFileAppend::sTypeGuid),
    KEL::FilterClassInfo(SourceKEL2MultiFileAppend::sFilterClassInfo), &SourceKEL2MultiFileAppendFilterCreator);

KelCommon::Guid SourceKEL2MultiFileReader::sTypeGuid =
    KelCommon::Guid::FromHexString("6D82A817-BAC2-4277-B599-7848F2170ADD");
KEL::FilterClassInfo SourceKEL2MultiFileReader::sFilterClassInfo("SourceKEL2MultiFileReader",
                                                                 KEL::FILTER_CATEGORY_SOURCE);
int SourceKEL2MultiFileReader::sRegistrationId = KEL::FilterFactory::RegisterFilterClass(
    KelCommon::Guid(SourceKEL2MultiFileReader::sTypeGuid),
    KEL::FilterClassInfo(SourceKEL2MultiFileReader::sFilterClassInfo), &SourceKEL2MultiFileReaderFilterCreator);

// ---------------------------------------------------------------------------
// Targets
//
// The eight target classes follow here, one block each in the same pattern,
// in this order: TargetKEL2FileWriter, TargetKEL2FileWriterAsync,
// TargetKEL2FileSnapshotWriter, TargetKEL2FileSnapshotWriterAsync,
// TargetKEL2FilePerStreamWriter, TargetKEL2FilePerStreamWriterAsync,
// TargetKEL2FilePerStreamSnapshotWriter,
// TargetKEL2FilePerStreamSnapshotWriterAsync (category
// KEL::FILTER_CATEGORY_TARGET).
// ---------------------------------------------------------------------------

}  // namespace Kel2File
// NOLINTEND(cert-err58-cpp)
