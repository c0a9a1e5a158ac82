#include <KEL/FilterFactory.h>
#include <KEL/Target.h>
#include <KelCommon/Logger.h>
#include <gtest/gtest.h>

#include <stdexcept>

namespace {

const KelCommon::Guid kProbeGuid = KelCommon::Guid::FromHexString("11111111-2222-4333-8444-555555555555");
const KelCommon::Guid kThrowerGuid = KelCommon::Guid::FromHexString("11111111-2222-4333-8444-666666666666");
const KEL::FilterClassInfo kProbeInfo("Probe", KEL::FILTER_CATEGORY_TARGET);

class Probe : public KEL::Target {
public:
    Probe() : KEL::Target(true) {}
    KelCommon::Guid TypeGuid() const override { return kProbeGuid; }
    KEL::FilterClassInfo GetFilterClassInfo() const override { return kProbeInfo; }
};

KEL::Filter* CreateProbe() { return new Probe(); }
KEL::Filter* CreateOtherProbe() { return new Probe(); }
KEL::Filter* CreateThrower() { throw std::runtime_error("out of handles"); }

class FilterFactoryTest : public ::testing::Test {
protected:
    void TearDown() override {
        KEL::FilterFactory::UnregisterFilterClass(kProbeGuid);
        KEL::FilterFactory::UnregisterFilterClass(kThrowerGuid);
    }
    KelCommon::ScopedLogCapture capture;
};

TEST_F(FilterFactoryTest, CreatesRegisteredClassesByNameOrGuidTextAndNothingElse) {
    ASSERT_GT(KEL::FilterFactory::RegisterFilterClass(kProbeGuid, kProbeInfo, &CreateProbe), 0);
    for (const char* name :
         {"Probe", "{11111111-2222-4333-8444-555555555555}", "11111111-2222-4333-8444-555555555555"}) {
        auto filter = KEL::FilterFactory::CreateFilter(name);
        ASSERT_NE(filter, nullptr) << name;
        EXPECT_EQ(std::unique_ptr<KEL::Filter>(filter->Instantiate())->TypeGuid(), kProbeGuid);
    }
    EXPECT_EQ(KEL::FilterFactory::CreateFilter("NoSuchFilter"), nullptr);
    EXPECT_EQ(KEL::FilterFactory::CreateFilter(kThrowerGuid), nullptr);
    ASSERT_GT(
        KEL::FilterFactory::RegisterFilterClass(kThrowerGuid, {"Thrower", KEL::FILTER_CATEGORY_SOURCE}, &CreateThrower),
        0);
    EXPECT_EQ(KEL::FilterFactory::CreateFilter("Thrower"), nullptr);
    EXPECT_EQ(capture.CountContaining("out of handles"), 1U);
}

TEST_F(FilterFactoryTest, RepeatedRegistrationKeepsItsIdAndConflictingOnesAreRefusedAndLogged) {
    const int id = KEL::FilterFactory::RegisterFilterClass(kProbeGuid, kProbeInfo, &CreateProbe);
    ASSERT_GT(id, 0);
    EXPECT_EQ(KEL::FilterFactory::RegisterFilterClass(kProbeGuid, kProbeInfo, &CreateProbe), id);
    EXPECT_EQ(KEL::FilterFactory::RegisterFilterClass(kProbeGuid, {"Impostor", KEL::FILTER_CATEGORY_SOURCE},
                                                      &CreateOtherProbe),
              0);
    EXPECT_EQ(KEL::FilterFactory::RegisterFilterClass(kThrowerGuid, kProbeInfo, nullptr), 0);
    EXPECT_EQ(capture.CountContaining("registration refused"), 2U);
    EXPECT_EQ(KEL::FilterFactory::Find(kProbeGuid)->info.GetName(), "Probe");
    EXPECT_EQ(KEL::FilterFactory::Find(kProbeGuid)->registrationId, id);
    EXPECT_FALSE(KEL::FilterFactory::Find(kThrowerGuid));
}

}  // namespace
