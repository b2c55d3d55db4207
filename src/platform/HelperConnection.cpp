#include "platform/HelperConnection.h"

namespace vantorix {

std::string_view failureName(ConnectionFailure failure) {
    switch (failure) {
        case ConnectionFailure::connectFailed: return "connect failed";
        case ConnectionFailure::peerNotRoot: return "peer not root";
        case ConnectionFailure::brokenStream: return "broken stream";
        case ConnectionFailure::malformedReply: return "malformed reply";
        case ConnectionFailure::invalidated: return "invalidated";
    }
    return {};
}

}  // namespace vantorix
