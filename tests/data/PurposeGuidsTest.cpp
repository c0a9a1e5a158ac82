#include <KEL/KELPurposeGuids.h>
#include <KEL/PurposeGuids.h>
#include <KelCommon/Logger.h>
#include <gtest/gtest.h>

#include <sstream>
#include <string>

namespace {

// The well-known purposes as alias=GUID, in registration order.
const char* const kWellKnownPurposes =
    "KL4D=6F0022F4-A3D5-4CCA-8DAC-ADCC3B37C839 AFFINE=CAAFFE19-6E28-48F8-966B-480C70D43C67 "
    "PHOTOGRAMMETRY=44AA3F2B-BD87-4B70-8BF7-7EF34BB97EF3 MINC=EE290172-596C-4A9A-9175-AC029038B812 "
    "KEL1=F07C7A27-7417-4638-BA50-08C68942C112 Network=3DF13A4F-31E9-4756-AE01-FFA8E1EB80A5 "
    "ASD=8A213444-B140-4EA0-B625-175865657949 CROP=2483D517-8097-4263-8F06-02468EBC0443 "
    "DUMMY1=B25B7743-920F-4BB0-A650-D1087E87BB6F DUMMY2=5F0A4F1B-F04B-481B-A97C-F23E6C2071A0 "
    "DUMMY3=EC67A072-E33B-4862-A39E-4278A539E810 STATIC=80FE49AE-24BF-439E-B8D5-383E83D59D79 "
    "DYNAMIC=AC41E48E-3714-4809-AB28-2A2A8E9AE06F REX=3C766FE2-02AB-4D55-A9F9-5C4396C287F8 "
    "UNDISTORTED_COLORSPACE=29D2DF13-AAC7-4927-943E-17AB2FACC390 "
    "MERGED_POISSON=AC29C86C-6729-456A-ADF5-DF1D14804716 MERGED_TSDF=A9065DBA-7A9E-4A2C-82F9-56D0872DD102 "
    "SEQUENTIAL_POISSON=77109EC1-8B96-4DD8-9035-19DF0C626F2D DECIMATE=1DD9CC73-8C94-4A0F-A610-687E31A682E2 "
    "COLOR_QUANT=CABA6F7C-E11B-495E-BA47-6B5AF2F3500C SEQUENTIAL_REGISTRATION=58DDE7D7-4E76-4775-9C6F-8D6EBA25CADC "
    "DENOISE=F0C6FB6D-A803-45E9-8F76-539E0F9152DE THUMBNAIL=64645F07-91BB-4DAB-A7AD-1B50F1C1D1F0 "
    "COLORCORRECTED=61EAF822-27C4-43ED-A8D7-CCB0EC14FFCC CIRCLES=617B0F33-3DA0-46B5-B3F0-ECD44A848B1F "
    "CAMERA_PRIMARY=29D21270-8E73-4284-A3F6-5A9D868C9D1B CAMERA_SECONDARY=EA97C8D8-CFBC-4052-8223-AAE4DF2EC903 "
    "PRIMARY_IR=703A5C10-16D4-419B-956B-DD1A894D5E0C PRIMARY_COLOR=947E9749-2931-4A11-B747-7FC8EE1BD887 "
    "SECONDARY_COLOR=188F7F1F-3264-4073-B166-6C1A3DE002A2 MULTIPATCH_COLOR=FE75E4E4-4DEF-43BF-97FD-6A0A4D39C08E "
    "MULTIPATCH_DEPTH=0EEED5E0-3D99-494F-A3E6-F46880A99116 MULTIPATCH_COMBINED=0F7A4F52-D13A-4B77-B7A2-23636E4DB3F9";

}  // namespace

TEST(PurposeGuids, EveryWellKnownAliasResolvesToItsGuidInTableOrderAndConflictsAreRefused) {
    EXPECT_EQ(KEL::PurposeGuid_THUMBNAIL, KelCommon::Guid::FromHexString("64645F07-91BB-4DAB-A7AD-1B50F1C1D1F0"));
    const auto all = KEL::KELPurposeGuids::All();
    std::istringstream table(kWellKnownPurposes);
    std::size_t i = 0;
    for (std::string entry; table >> entry; ++i) {
        const std::string alias = entry.substr(0, entry.find('='));
        const auto guid = KelCommon::Guid::FromHexString(entry.substr(alias.size() + 1));
        EXPECT_EQ(KEL::KELPurposeGuids::ResolveAlias(alias), guid) << alias;
        EXPECT_EQ(KEL::KELPurposeGuids::GetAlias(guid), KelCommon::String(alias)) << alias;
        ASSERT_LT(i, all.size());
        EXPECT_EQ(all[i], std::make_pair(guid, KelCommon::String(alias))) << i;
    }
    EXPECT_EQ(i, 33U);
    EXPECT_FALSE(KEL::KELPurposeGuids::ResolveAlias("network"));  // aliases are case-sensitive
    // Repeating a registration is harmless; a conflicting one is refused and logged.
    KelCommon::ScopedLogCapture capture;
    EXPECT_TRUE(KEL::KELPurposeGuids::RegisterPurposeGuidAlias(KEL::PurposeGuid_THUMBNAIL, "THUMBNAIL"));
    EXPECT_TRUE(capture.Records().empty());
    // The alias names another GUID; the GUID already has another alias.
    EXPECT_FALSE(KEL::KELPurposeGuids::RegisterPurposeGuidAlias(
        KelCommon::Guid::FromHexString("11111111-2222-3333-4444-555555555555"), "THUMBNAIL"));
    EXPECT_FALSE(KEL::KELPurposeGuids::RegisterPurposeGuidAlias(KEL::PurposeGuid_THUMBNAIL, "PREVIEW"));
    EXPECT_EQ(KEL::KELPurposeGuids::Count(), all.size());
    EXPECT_EQ(capture.CountContaining("Refusing purpose alias"), 2U);
    EXPECT_EQ(capture.Records()[0].level, 2);
    EXPECT_EQ(KEL::KELPurposeGuids::ResolveAlias("THUMBNAIL"), KEL::PurposeGuid_THUMBNAIL);
    EXPECT_FALSE(KEL::KELPurposeGuids::ResolveAlias("PREVIEW"));
}
