#include "targets/TargetKEL2FileWriterAsync.h"

extern "C" KEL_API KEL::Filter* TargetKEL2FileWriterAsyncFilterCreator() {
    return Kel2File::NewZeroFilledFilter<Kel2File::TargetKEL2FileWriterAsync>();
}
