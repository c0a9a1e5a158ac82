#include <KEL/Target.h>

namespace KEL {

Target::Target(bool acceptsAllStreams) : acceptsAllStreams_(acceptsAllStreams) {}

Target::~Target() = default;

}  // namespace KEL
