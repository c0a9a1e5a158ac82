#include "targets/TargetKEL2FilePerStreamWriterAsync.h"

extern "C" KEL_API KEL::Filter* TargetKEL2FilePerStreamWriterAsyncFilterCreator() {
    return Kel2File::NewZeroFilledFilter<Kel2File::TargetKEL2FilePerStreamWriterAsync>();
}
