#include <KEL/FilterFactory.h>
#include <KEL/Target.h>
#include <KelCommon/Logger.h>
#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>

namespace {

const KelCommon::Guid kProbeGuid = KelCommon::Guid::FromHexString("11111111-2222-4333-8444-555555555555");
const KelCommon::Guid kThrowerGuid = KelCommon::Guid::FromHexString("11111111-2222-4333-8444-666666666666");

class Probe : public KEL::Target {
public:
    Probe() : KEL::Target(true) {}
    KelCommon::Guid TypeGuid() const override { return kProbeGuid; }
    KEL::FilterClassInfo GetFilterClassInfo() const override { return {"Probe", KEL::FILTER_CATEGORY_TARGET}; }
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
    static KEL::FilterClassInfo ProbeInfo() { return {"Probe", KEL::FILTER_CATEGORY_TARGET}; }
};

TEST_F(FilterFactoryTest, RegisteredClassIsCreatedByNameAndByGuidText) {
    const int id = KEL::FilterFactory::RegisterFilterClass(kProbeGuid, ProbeInfo(), &CreateProbe);
    ASSERT_GT(id, 0);
    auto byName = KEL::FilterFactory::CreateFilter("Probe");
    ASSERT_NE(byName, nullptr);
    EXPECT_EQ(byName->TypeGuid(), kProbeGuid);
    auto byGuid = KEL::FilterFactory::CreateFilter("{11111111-2222-4333-8444-555555555555}");
    ASSERT_NE(byGuid, nullptr);
    std::unique_ptr<KEL::Filter> again(byGuid->Instantiate());
    ASSERT_NE(again, nullptr);
    EXPECT_EQ(again->GetFilterClassInfo().GetName(), "Probe");
    const auto found = KEL::FilterFactory::Find(kProbeGuid);
    ASSERT_TRUE(found.has_value());
    EXPECT_EQ(found->registrationId, id);
    EXPECT_EQ(found->info.GetProvider(), "");
}

TEST_F(FilterFactoryTest, RepeatedIdenticalRegistrationReturnsTheSameId) {
    const int id = KEL::FilterFactory::RegisterFilterClass(kProbeGuid, ProbeInfo(), &CreateProbe);
    EXPECT_EQ(KEL::FilterFactory::RegisterFilterClass(kProbeGuid, ProbeInfo(), &CreateProbe), id);
}

TEST_F(FilterFactoryTest, ConflictingRegistrationIsRefusedAndLogged) {
    KelCommon::ScopedLogCapture capture;
    ASSERT_GT(KEL::FilterFactory::RegisterFilterClass(kProbeGuid, ProbeInfo(), &CreateProbe), 0);
    EXPECT_EQ(KEL::FilterFactory::RegisterFilterClass(kProbeGuid, {"Impostor", KEL::FILTER_CATEGORY_SOURCE},
                                                      &CreateOtherProbe),
              0);
    EXPECT_EQ(capture.CountContaining("registration refused"), 1U);
    EXPECT_EQ(KEL::FilterFactory::Find(kProbeGuid)->info.GetName(), "Probe");
    EXPECT_EQ(KEL::FilterFactory::RegisterFilterClass(kThrowerGuid, ProbeInfo(), nullptr), 0);
}

TEST_F(FilterFactoryTest, UnknownClassesAndThrowingCreatorsGiveNoFilter) {
    KelCommon::ScopedLogCapture capture;
    EXPECT_EQ(KEL::FilterFactory::CreateFilter("NoSuchFilter"), nullptr);
    EXPECT_EQ(KEL::FilterFactory::CreateFilter(kProbeGuid), nullptr);
    ASSERT_GT(
        KEL::FilterFactory::RegisterFilterClass(kThrowerGuid, {"Thrower", KEL::FILTER_CATEGORY_SOURCE}, &CreateThrower),
        0);
    EXPECT_EQ(KEL::FilterFactory::CreateFilter("Thrower"), nullptr);
    EXPECT_EQ(capture.CountContaining("out of handles"), 1U);
}

TEST_F(FilterFactoryTest, PluginRegistrationsAreAttributedAndReported) {
    KEL::FilterFactory::BeginPluginRegistration("libprobe.so");
    ASSERT_GT(KEL::FilterFactory::RegisterFilterClass(kProbeGuid, ProbeInfo(), &CreateProbe), 0);
    const auto guids = KEL::FilterFactory::EndPluginRegistration();
    EXPECT_EQ(guids, (std::vector<KelCommon::Guid>{kProbeGuid}));
    EXPECT_EQ(KEL::FilterFactory::Find(kProbeGuid)->info.GetProvider(), "libprobe.so");
    EXPECT_TRUE(KEL::FilterFactory::UnregisterFilterClass(kProbeGuid));
    EXPECT_FALSE(KEL::FilterFactory::UnregisterFilterClass(kProbeGuid));
    EXPECT_TRUE(KEL::FilterFactory::EndPluginRegistration().empty());
}

}  // namespace
