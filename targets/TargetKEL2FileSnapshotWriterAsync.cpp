#include "targets/TargetKEL2FileSnapshotWriterAsync.h"

extern "C" KEL_API KEL::Filter* TargetKEL2FileSnapshotWriterAsyncFilterCreator() {
    return Kel2File::NewZeroFilledFilter<Kel2File::TargetKEL2FileSnapshotWriterAsync>();
}
