#include "targets/TargetKEL2FileSnapshotWriter.h"

extern "C" KEL_API KEL::Filter* TargetKEL2FileSnapshotWriterFilterCreator() {
    return Kel2File::NewZeroFilledFilter<Kel2File::TargetKEL2FileSnapshotWriter>();
}
