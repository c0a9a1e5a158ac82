#include "targets/TargetKEL2FilePerStreamSnapshotWriter.h"

extern "C" KEL_API KEL::Filter* TargetKEL2FilePerStreamSnapshotWriterFilterCreator() {
    return Kel2File::NewZeroFilledFilter<Kel2File::TargetKEL2FilePerStreamSnapshotWriter>();
}
