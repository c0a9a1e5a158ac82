#include <KEL/KELPurposeGuids.h>
#include <KEL/PurposeGuids.h>
#include <KelCommon/Logger.h>
#include <gtest/gtest.h>

TEST(PurposeGuids, EveryAliasResolvesBothWaysAfterLoad) {
    EXPECT_GE(KEL::KELPurposeGuids::Count(), 33U);
    EXPECT_EQ(KEL::PurposeGuid_THUMBNAIL, KelCommon::Guid::FromHexString("64645F07-91BB-4DAB-A7AD-1B50F1C1D1F0"));
    const std::pair<const char*, KelCommon::Guid> samples[] = {
        {"KL4D", KEL::PurposeGuid_KL4D},
        {"Network", KEL::PurposeGuid_Network},
        {"THUMBNAIL", KEL::PurposeGuid_THUMBNAIL},
        {"MULTIPATCH_COMBINED", KEL::PurposeGuid_MULTIPATCH_COMBINED},
    };
    for (const auto& [alias, guid] : samples) {
        EXPECT_EQ(KEL::KELPurposeGuids::ResolveAlias(alias), guid) << alias;
        EXPECT_EQ(KEL::KELPurposeGuids::GetAlias(guid), KelCommon::String(alias)) << alias;
    }
    const auto all = KEL::KELPurposeGuids::All();
    EXPECT_EQ(all.front().second, "KL4D");
    EXPECT_EQ(all[32].second, "MULTIPATCH_COMBINED");
    EXPECT_FALSE(KEL::KELPurposeGuids::ResolveAlias("network"));
}

TEST(PurposeGuids, RepeatedIdenticalRegistrationIsHarmless) {
    const auto before = KEL::KELPurposeGuids::Count();
    KelCommon::ScopedLogCapture capture;
    EXPECT_TRUE(KEL::KELPurposeGuids::RegisterPurposeGuidAlias(KEL::PurposeGuid_THUMBNAIL, "THUMBNAIL"));
    EXPECT_EQ(KEL::KELPurposeGuids::Count(), before);
    EXPECT_TRUE(capture.Records().empty());
}

TEST(PurposeGuids, ConflictingRegistrationIsRefusedAndLogged) {
    const auto before = KEL::KELPurposeGuids::Count();
    KelCommon::ScopedLogCapture capture;
    // The alias names another GUID.
    EXPECT_FALSE(KEL::KELPurposeGuids::RegisterPurposeGuidAlias(
        KelCommon::Guid::FromHexString("11111111-2222-3333-4444-555555555555"), "THUMBNAIL"));
    // The GUID already has another alias.
    EXPECT_FALSE(KEL::KELPurposeGuids::RegisterPurposeGuidAlias(KEL::PurposeGuid_THUMBNAIL, "PREVIEW"));
    EXPECT_EQ(KEL::KELPurposeGuids::Count(), before);
    EXPECT_EQ(capture.CountContaining("Refusing purpose alias"), 2U);
    EXPECT_EQ(capture.Records()[0].level, 2);
    EXPECT_EQ(KEL::KELPurposeGuids::ResolveAlias("THUMBNAIL"), KEL::PurposeGuid_THUMBNAIL);
    EXPECT_FALSE(KEL::KELPurposeGuids::ResolveAlias("PREVIEW"));
}
