#include <KEL/KELPurposeGuids.h>
#include <KEL/PurposeGuids.h>
#include <KelCommon/Logger.h>
#include <gtest/gtest.h>

#include <set>
#include <string>

// The 33 well-known purposes resolve both ways under distinct aliases (the
// GUIDs themselves are constants of the host headers, stored in every file
// and checked end to end by the layer kinds `kel info` names).
TEST(PurposeGuids, EveryWellKnownAliasResolvesBothWaysAndConflictsAreRefused) {
    const auto all = KEL::KELPurposeGuids::All();
    ASSERT_EQ(all.size(), 33U);
    std::set<std::string> aliases;
    for (const auto& [guid, alias] : all) {
        EXPECT_TRUE(aliases.insert(alias.str()).second) << alias.str();
        EXPECT_EQ(KEL::KELPurposeGuids::ResolveAlias(alias), guid) << alias.str();
        EXPECT_EQ(KEL::KELPurposeGuids::GetAlias(guid), alias) << alias.str();
    }
    EXPECT_EQ(KEL::KELPurposeGuids::ResolveAlias("THUMBNAIL"),
              KelCommon::Guid::FromHexString("64645F07-91BB-4DAB-A7AD-1B50F1C1D1F0"));
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
    EXPECT_FALSE(KEL::KELPurposeGuids::ResolveAlias("PREVIEW"));
}
