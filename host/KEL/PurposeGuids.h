#pragma once

// The 33 well-known purpose GUIDs and their aliases.
//
// Every compilation unit that includes this header holds its own copy of the
// constants (internal linkage) and registers each with its alias in the
// process-wide registry when the unit is loaded. The registry accepts the
// repeated identical registrations, so any number of units may include it.

#include <KEL/KELPurposeGuids.h>
#include <KelCommon/Guid.h>

namespace KEL {

static const KelCommon::Guid PurposeGuid_KL4D = KelCommon::Guid::FromHexString("6F0022F4-A3D5-4CCA-8DAC-ADCC3B37C839");
static const KelCommon::Guid PurposeGuid_AFFINE =
    KelCommon::Guid::FromHexString("CAAFFE19-6E28-48F8-966B-480C70D43C67");
static const KelCommon::Guid PurposeGuid_PHOTOGRAMMETRY =
    KelCommon::Guid::FromHexString("44AA3F2B-BD87-4B70-8BF7-7EF34BB97EF3");
static const KelCommon::Guid PurposeGuid_MINC = KelCommon::Guid::FromHexString("EE290172-596C-4A9A-9175-AC029038B812");
static const KelCommon::Guid PurposeGuid_KEL1 = KelCommon::Guid::FromHexString("F07C7A27-7417-4638-BA50-08C68942C112");
static const KelCommon::Guid PurposeGuid_Network =
    KelCommon::Guid::FromHexString("3DF13A4F-31E9-4756-AE01-FFA8E1EB80A5");
static const KelCommon::Guid PurposeGuid_ASD = KelCommon::Guid::FromHexString("8A213444-B140-4EA0-B625-175865657949");
static const KelCommon::Guid PurposeGuid_CROP = KelCommon::Guid::FromHexString("2483D517-8097-4263-8F06-02468EBC0443");
static const KelCommon::Guid PurposeGuid_DUMMY1 =
    KelCommon::Guid::FromHexString("B25B7743-920F-4BB0-A650-D1087E87BB6F");
static const KelCommon::Guid PurposeGuid_DUMMY2 =
    KelCommon::Guid::FromHexString("5F0A4F1B-F04B-481B-A97C-F23E6C2071A0");
static const KelCommon::Guid PurposeGuid_DUMMY3 =
    KelCommon::Guid::FromHexString("EC67A072-E33B-4862-A39E-4278A539E810");
static const KelCommon::Guid PurposeGuid_STATIC =
    KelCommon::Guid::FromHexString("80FE49AE-24BF-439E-B8D5-383E83D59D79");
static const KelCommon::Guid PurposeGuid_DYNAMIC =
    KelCommon::Guid::FromHexString("AC41E48E-3714-4809-AB28-2A2A8E9AE06F");
static const KelCommon::Guid PurposeGuid_REX = KelCommon::Guid::FromHexString("3C766FE2-02AB-4D55-A9F9-5C4396C287F8");
static const KelCommon::Guid PurposeGuid_UNDISTORTED_COLORSPACE =
    KelCommon::Guid::FromHexString("29D2DF13-AAC7-4927-943E-17AB2FACC390");
static const KelCommon::Guid PurposeGuid_MERGED_POISSON =
    KelCommon::Guid::FromHexString("AC29C86C-6729-456A-ADF5-DF1D14804716");
static const KelCommon::Guid PurposeGuid_MERGED_TSDF =
    KelCommon::Guid::FromHexString("A9065DBA-7A9E-4A2C-82F9-56D0872DD102");
static const KelCommon::Guid PurposeGuid_SEQUENTIAL_POISSON =
    KelCommon::Guid::FromHexString("77109EC1-8B96-4DD8-9035-19DF0C626F2D");
static const KelCommon::Guid PurposeGuid_DECIMATE =
    KelCommon::Guid::FromHexString("1DD9CC73-8C94-4A0F-A610-687E31A682E2");
static const KelCommon::Guid PurposeGuid_COLOR_QUANT =
    KelCommon::Guid::FromHexString("CABA6F7C-E11B-495E-BA47-6B5AF2F3500C");
static const KelCommon::Guid PurposeGuid_SEQUENTIAL_REGISTRATION =
    KelCommon::Guid::FromHexString("58DDE7D7-4E76-4775-9C6F-8D6EBA25CADC");
static const KelCommon::Guid PurposeGuid_DENOISE =
    KelCommon::Guid::FromHexString("F0C6FB6D-A803-45E9-8F76-539E0F9152DE");
static const KelCommon::Guid PurposeGuid_THUMBNAIL =
    KelCommon::Guid::FromHexString("64645F07-91BB-4DAB-A7AD-1B50F1C1D1F0");
static const KelCommon::Guid PurposeGuid_COLORCORRECTED =
    KelCommon::Guid::FromHexString("61EAF822-27C4-43ED-A8D7-CCB0EC14FFCC");
static const KelCommon::Guid PurposeGuid_CIRCLES =
    KelCommon::Guid::FromHexString("617B0F33-3DA0-46B5-B3F0-ECD44A848B1F");
static const KelCommon::Guid PurposeGuid_CAMERA_PRIMARY =
    KelCommon::Guid::FromHexString("29D21270-8E73-4284-A3F6-5A9D868C9D1B");
static const KelCommon::Guid PurposeGuid_CAMERA_SECONDARY =
    KelCommon::Guid::FromHexString("EA97C8D8-CFBC-4052-8223-AAE4DF2EC903");
static const KelCommon::Guid PurposeGuid_PRIMARY_IR =
    KelCommon::Guid::FromHexString("703A5C10-16D4-419B-956B-DD1A894D5E0C");
static const KelCommon::Guid PurposeGuid_PRIMARY_COLOR =
    KelCommon::Guid::FromHexString("947E9749-2931-4A11-B747-7FC8EE1BD887");
static const KelCommon::Guid PurposeGuid_SECONDARY_COLOR =
    KelCommon::Guid::FromHexString("188F7F1F-3264-4073-B166-6C1A3DE002A2");
static const KelCommon::Guid PurposeGuid_MULTIPATCH_COLOR =
    KelCommon::Guid::FromHexString("FE75E4E4-4DEF-43BF-97FD-6A0A4D39C08E");
static const KelCommon::Guid PurposeGuid_MULTIPATCH_DEPTH =
    KelCommon::Guid::FromHexString("0EEED5E0-3D99-494F-A3E6-F46880A99116");
static const KelCommon::Guid PurposeGuid_MULTIPATCH_COMBINED =
    KelCommon::Guid::FromHexString("0F7A4F52-D13A-4B77-B7A2-23636E4DB3F9");

namespace detail {

// Registers this unit's copies of the constants, in table order, at load.
static bool RegisterPurposeGuidAliases() {
    KELPurposeGuids::RegisterPurposeGuidAlias(PurposeGuid_KL4D, "KL4D");
    KELPurposeGuids::RegisterPurposeGuidAlias(PurposeGuid_AFFINE, "AFFINE");
    KELPurposeGuids::RegisterPurposeGuidAlias(PurposeGuid_PHOTOGRAMMETRY, "PHOTOGRAMMETRY");
    KELPurposeGuids::RegisterPurposeGuidAlias(PurposeGuid_MINC, "MINC");
    KELPurposeGuids::RegisterPurposeGuidAlias(PurposeGuid_KEL1, "KEL1");
    KELPurposeGuids::RegisterPurposeGuidAlias(PurposeGuid_Network, "Network");
    KELPurposeGuids::RegisterPurposeGuidAlias(PurposeGuid_ASD, "ASD");
    KELPurposeGuids::RegisterPurposeGuidAlias(PurposeGuid_CROP, "CROP");
    KELPurposeGuids::RegisterPurposeGuidAlias(PurposeGuid_DUMMY1, "DUMMY1");
    KELPurposeGuids::RegisterPurposeGuidAlias(PurposeGuid_DUMMY2, "DUMMY2");
    KELPurposeGuids::RegisterPurposeGuidAlias(PurposeGuid_DUMMY3, "DUMMY3");
    KELPurposeGuids::RegisterPurposeGuidAlias(PurposeGuid_STATIC, "STATIC");
    KELPurposeGuids::RegisterPurposeGuidAlias(PurposeGuid_DYNAMIC, "DYNAMIC");
    KELPurposeGuids::RegisterPurposeGuidAlias(PurposeGuid_REX, "REX");
    KELPurposeGuids::RegisterPurposeGuidAlias(PurposeGuid_UNDISTORTED_COLORSPACE, "UNDISTORTED_COLORSPACE");
    KELPurposeGuids::RegisterPurposeGuidAlias(PurposeGuid_MERGED_POISSON, "MERGED_POISSON");
    KELPurposeGuids::RegisterPurposeGuidAlias(PurposeGuid_MERGED_TSDF, "MERGED_TSDF");
    KELPurposeGuids::RegisterPurposeGuidAlias(PurposeGuid_SEQUENTIAL_POISSON, "SEQUENTIAL_POISSON");
    KELPurposeGuids::RegisterPurposeGuidAlias(PurposeGuid_DECIMATE, "DECIMATE");
    KELPurposeGuids::RegisterPurposeGuidAlias(PurposeGuid_COLOR_QUANT, "COLOR_QUANT");
    KELPurposeGuids::RegisterPurposeGuidAlias(PurposeGuid_SEQUENTIAL_REGISTRATION, "SEQUENTIAL_REGISTRATION");
    KELPurposeGuids::RegisterPurposeGuidAlias(PurposeGuid_DENOISE, "DENOISE");
    KELPurposeGuids::RegisterPurposeGuidAlias(PurposeGuid_THUMBNAIL, "THUMBNAIL");
    KELPurposeGuids::RegisterPurposeGuidAlias(PurposeGuid_COLORCORRECTED, "COLORCORRECTED");
    KELPurposeGuids::RegisterPurposeGuidAlias(PurposeGuid_CIRCLES, "CIRCLES");
    KELPurposeGuids::RegisterPurposeGuidAlias(PurposeGuid_CAMERA_PRIMARY, "CAMERA_PRIMARY");
    KELPurposeGuids::RegisterPurposeGuidAlias(PurposeGuid_CAMERA_SECONDARY, "CAMERA_SECONDARY");
    KELPurposeGuids::RegisterPurposeGuidAlias(PurposeGuid_PRIMARY_IR, "PRIMARY_IR");
    KELPurposeGuids::RegisterPurposeGuidAlias(PurposeGuid_PRIMARY_COLOR, "PRIMARY_COLOR");
    KELPurposeGuids::RegisterPurposeGuidAlias(PurposeGuid_SECONDARY_COLOR, "SECONDARY_COLOR");
    KELPurposeGuids::RegisterPurposeGuidAlias(PurposeGuid_MULTIPATCH_COLOR, "MULTIPATCH_COLOR");
    KELPurposeGuids::RegisterPurposeGuidAlias(PurposeGuid_MULTIPATCH_DEPTH, "MULTIPATCH_DEPTH");
    KELPurposeGuids::RegisterPurposeGuidAlias(PurposeGuid_MULTIPATCH_COMBINED, "MULTIPATCH_COMBINED");
    return true;
}

[[maybe_unused]] static const bool purposeGuidAliasesRegistered = RegisterPurposeGuidAliases();

}  // namespace detail

// Number of well-known purpose GUIDs declared above.
inline constexpr int kNumWellKnownPurposeGuids = 33;

}  // namespace KEL
