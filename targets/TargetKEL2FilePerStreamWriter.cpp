#include "targets/TargetKEL2FilePerStreamWriter.h"

extern "C" KEL_API KEL::Filter* TargetKEL2FilePerStreamWriterFilterCreator() {
    return Kel2File::NewZeroFilledFilter<Kel2File::TargetKEL2FilePerStreamWriter>();
}
