#include <KEL/Source.h>

#include <utility>

namespace KEL {

Source::Source() = default;

Source::~Source() = default;

std::shared_ptr<DataTypeStreamInfo> Source::GetStreamInfo() { return nullptr; }

KelErrorCode Source::pushDataToOutput(std::uint32_t /*frameNr*/) { return KEL_ERR_NOT_FOUND; }

void Source::pushToOutputQueue(std::shared_ptr<Atom> atom) {
    if (atom) {
        outputQueue_.push_back(std::move(atom));
    }
}

std::vector<std::shared_ptr<Atom>> Source::TakeOutputQueue() {
    std::vector<std::shared_ptr<Atom>> taken;
    taken.swap(outputQueue_);
    return taken;
}

}  // namespace KEL
