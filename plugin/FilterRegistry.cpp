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
#include "targets/TargetKEL2FilePerStreamSnapshotWriter.h"
#include "targets/TargetKEL2FilePerStreamSnapshotWriterAsync.h"
#include "targets/TargetKEL2FilePerStreamWriter.h"
#include "targets/TargetKEL2FilePerStreamWriterAsync.h"
#include "targets/TargetKEL2FileSnapshotWriter.h"
#include "targets/TargetKEL2FileSnapshotWriterAsync.h"
#include "targets/TargetKEL2FileWriter.h"
#include "targets/TargetKEL2FileWriterAsync.h"

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
// ---------------------------------------------------------------------------

KelCommon::Guid TargetKEL2FileWriter::sTypeGuid =
    KelCommon::Guid::FromHexString("972EE495-EB8E-48A8-AB94-43797E34A436");
KEL::FilterClassInfo TargetKEL2FileWriter::sFilterClassInfo("TargetKEL2FileWriter", KEL::FILTER_CATEGORY_TARGET);
int TargetKEL2FileWriter::sRegistrationId = KEL::FilterFactory::RegisterFilterClass(
    KelCommon::Guid(TargetKEL2FileWriter::sTypeGuid), KEL::FilterClassInfo(TargetKEL2FileWriter::sFilterClassInfo),
    &TargetKEL2FileWriterFilterCreator);

KelCommon::Guid TargetKEL2FileWriterAsync::sTypeGuid =
    KelCommon::Guid::FromHexString("3802D826-7D62-41BF-A92E-6A56E3700590");
KEL::FilterClassInfo TargetKEL2FileWriterAsync::sFilterClassInfo("TargetKEL2FileWriterAsync",
                                                                 KEL::FILTER_CATEGORY_TARGET);
int TargetKEL2FileWriterAsync::sRegistrationId = KEL::FilterFactory::RegisterFilterClass(
    KelCommon::Guid(TargetKEL2FileWriterAsync::sTypeGuid),
    KEL::FilterClassInfo(TargetKEL2FileWriterAsync::sFilterClassInfo), &TargetKEL2FileWriterAsyncFilterCreator);

KelCommon::Guid TargetKEL2FileSnapshotWriter::sTypeGuid =
    KelCommon::Guid::FromHexString("5F18B69C-472C-4BF7-902C-593A24A53267");
KEL::FilterClassInfo TargetKEL2FileSnapshotWriter::sFilterClassInfo("TargetKEL2FileSnapshotWriter",
                                                                    KEL::FILTER_CATEGORY_TARGET);
int TargetKEL2FileSnapshotWriter::sRegistrationId = KEL::FilterFactory::RegisterFilterClass(
    KelCommon::Guid(TargetKEL2FileSnapshotWriter::sTypeGuid),
    KEL::FilterClassInfo(TargetKEL2FileSnapshotWriter::sFilterClassInfo), &TargetKEL2FileSnapshotWriterFilterCreator);

KelCommon::Guid TargetKEL2FileSnapshotWriterAsync::sTypeGuid =
    KelCommon::Guid::FromHexString("990F8140-8912-464F-B85A-6AB300AD0E37");
KEL::FilterClassInfo TargetKEL2FileSnapshotWriterAsync::sFilterClassInfo("TargetKEL2FileSnapshotWriterAsync",
                                                                         KEL::FILTER_CATEGORY_TARGET);
int TargetKEL2FileSnapshotWriterAsync::sRegistrationId =
    KEL::FilterFactory::RegisterFilterClass(KelCommon::Guid(TargetKEL2FileSnapshotWriterAsync::sTypeGuid),
                                            KEL::FilterClassInfo(TargetKEL2FileSnapshotWriterAsync::sFilterClassInfo),
                                            &TargetKEL2FileSnapshotWriterAsyncFilterCreator);

KelCommon::Guid TargetKEL2FilePerStreamWriter::sTypeGuid =
    KelCommon::Guid::FromHexString("C6AB7E7D-E3E2-4E3A-ACAF-9A4DD28B318B");
KEL::FilterClassInfo TargetKEL2FilePerStreamWriter::sFilterClassInfo("TargetKEL2FilePerStreamWriter",
                                                                     KEL::FILTER_CATEGORY_TARGET);
int TargetKEL2FilePerStreamWriter::sRegistrationId = KEL::FilterFactory::RegisterFilterClass(
    KelCommon::Guid(TargetKEL2FilePerStreamWriter::sTypeGuid),
    KEL::FilterClassInfo(TargetKEL2FilePerStreamWriter::sFilterClassInfo), &TargetKEL2FilePerStreamWriterFilterCreator);

KelCommon::Guid TargetKEL2FilePerStreamWriterAsync::sTypeGuid =
    KelCommon::Guid::FromHexString("9F77FB3F-F205-491D-A12C-14B3266F700B");
KEL::FilterClassInfo TargetKEL2FilePerStreamWriterAsync::sFilterClassInfo("TargetKEL2FilePerStreamWriterAsync",
                                                                          KEL::FILTER_CATEGORY_TARGET);
int TargetKEL2FilePerStreamWriterAsync::sRegistrationId =
    KEL::FilterFactory::RegisterFilterClass(KelCommon::Guid(TargetKEL2FilePerStreamWriterAsync::sTypeGuid),
                                            KEL::FilterClassInfo(TargetKEL2FilePerStreamWriterAsync::sFilterClassInfo),
                                            &TargetKEL2FilePerStreamWriterAsyncFilterCreator);

KelCommon::Guid TargetKEL2FilePerStreamSnapshotWriter::sTypeGuid =
    KelCommon::Guid::FromHexString("A74FA620-53CD-461A-A512-3217F1271DC3");
KEL::FilterClassInfo TargetKEL2FilePerStreamSnapshotWriter::sFilterClassInfo("TargetKEL2FilePerStreamSnapshotWriter",
                                                                             KEL::FILTER_CATEGORY_TARGET);
int TargetKEL2FilePerStreamSnapshotWriter::sRegistrationId = KEL::FilterFactory::RegisterFilterClass(
    KelCommon::Guid(TargetKEL2FilePerStreamSnapshotWriter::sTypeGuid),
    KEL::FilterClassInfo(TargetKEL2FilePerStreamSnapshotWriter::sFilterClassInfo),
    &TargetKEL2FilePerStreamSnapshotWriterFilterCreator);

KelCommon::Guid TargetKEL2FilePerStreamSnapshotWriterAsync::sTypeGuid =
    KelCommon::Guid::FromHexString("BEF1EC5E-D302-4BAD-B771-88D0E404035C");
KEL::FilterClassInfo TargetKEL2FilePerStreamSnapshotWriterAsync::sFilterClassInfo(
    "TargetKEL2FilePerStreamSnapshotWriterAsync", KEL::FILTER_CATEGORY_TARGET);
int TargetKEL2FilePerStreamSnapshotWriterAsync::sRegistrationId = KEL::FilterFactory::RegisterFilterClass(
    KelCommon::Guid(TargetKEL2FilePerStreamSnapshotWriterAsync::sTypeGuid),
    KEL::FilterClassInfo(TargetKEL2FilePerStreamSnapshotWriterAsync::sFilterClassInfo),
    &TargetKEL2FilePerStreamSnapshotWriterAsyncFilterCreator);

}  // namespace Kel2File
// NOLINTEND(cert-err58-cpp)
