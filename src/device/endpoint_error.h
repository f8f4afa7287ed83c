#pragma once

#include <stdexcept>

namespace vexausb {

// The device has no such endpoint, or the endpoint's packet size makes no sense.
class EndpointError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

} // namespace vexausb
