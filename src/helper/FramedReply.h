#pragma once

#include <memory>
#include <string>

#include "protocol/SmartctlHelperProtocol.h"

namespace vantorix::helper {

// One reply as it goes on the wire (header and payload), encoded once and shared by every client
// that waits for it: fifty windows polling one drive hold one copy of its SMART data, not fifty.
using FramedReply = std::shared_ptr<const std::string>;

// The frame of a reply; an internalFailure error in its place should the reply not fit a frame.
FramedReply framedReply(const protocol::Reply& reply);

}  // namespace vantorix::helper
