#pragma once

namespace KEL {

// Told by the graph when frames stop following each other in order (a seek,
// the start of another loop). Called on the graph thread, between frames.
class IFrameOrderResetListener {
public:
    virtual ~IFrameOrderResetListener() = default;
    virtual void OnFrameOrderReset() = 0;
};

}  // namespace KEL
