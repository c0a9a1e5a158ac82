#include "targets/TargetKEL2FilePerStreamSnapshotWriterAsync.h"

extern "C" KEL_API KEL::Filter* TargetKEL2FilePerStreamSnapshotWriterAsyncFilterCreator() {
    return Kel2File::NewZeroFilledFilter<Kel2File::TargetKEL2FilePerStreamSnapshotWriterAsync>();
}
