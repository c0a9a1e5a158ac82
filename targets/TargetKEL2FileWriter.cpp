#include "targets/TargetKEL2FileWriter.h"

extern "C" KEL_API KEL::Filter* TargetKEL2FileWriterFilterCreator() {
    return Kel2File::NewZeroFilledFilter<Kel2File::TargetKEL2FileWriter>();
}
