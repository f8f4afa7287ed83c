#pragma once

#include "connection.h"

namespace sim {

// Whether the kernel's virtual host controller has yet to notice that a device has left: one of
// these devices still has a port, or a device is still known at a port that is already free.
bool portsHoldDepartedDevices(const Connection::Devices &devices);

} // namespace sim
