// The descriptor of the synthetic-capture plugin and the registration of its
// one filter class, run when the host loads the library.

#include <KEL/FilterFactory.h>
#include <KEL/KelVersion.h>
#include <KEL/PluginInfo.h>

#include "SyntheticCaptureSource.h"

extern "C" {

KEL_API KEL::PluginInfo kel_plugin{

    "KELSynthetic",
    "1.0.0",
    KEL::KEL_COMPILE_VERSION,
    KEL_VERSION_TAG,
};

KEL_API KEL::Filter* SyntheticCaptureSourceFilterCreator() { return new KelSynthetic::SyntheticCaptureSource(); }

}  // extern "C"

namespace {

[[maybe_unused]] const int syntheticCaptureSourceRegistration = KEL::FilterFactory::RegisterFilterClass(
    KelSynthetic::SyntheticCaptureSource::TheTypeGuid(), KelSynthetic::SyntheticCaptureSource::TheFilterClassInfo(),
    &SyntheticCaptureSourceFilterCreator);

}  // namespace
