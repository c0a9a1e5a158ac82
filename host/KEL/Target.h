#pragma once

#include <KEL/FilterWithInput.h>

namespace KEL {

// A filter at the end of a graph (files, network, display).
class KEL_API Target : public FilterWithInput {
public:
    // `acceptsAllStreams` true: the target takes every stream of its input;
    // false: it takes a single stream and the graph refuses to connect a
    // source with several.
    explicit Target(bool acceptsAllStreams);
    ~Target() override;

    bool AcceptsAllStreams() const noexcept { return acceptsAllStreams_; }

private:
    bool acceptsAllStreams_;
};

}  // namespace KEL
