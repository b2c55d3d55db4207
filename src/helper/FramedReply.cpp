#include "helper/FramedReply.h"

namespace vantorix::helper {

FramedReply framedReply(const protocol::Reply& reply) {
    std::string payload = protocol::encodedReply(reply);
    if (payload.size() > protocol::kMaximumFrameBytes) {
        payload = protocol::encodedReply(
            protocol::helperError(protocol::HelperFailure::internalFailure, "The reply is too large for one frame."));
    }
    return std::make_shared<const std::string>(protocol::framed(payload));
}

}  // namespace vantorix::helper
