#pragma once

#include "connection.h"

namespace sim {

// Whether a port of the kernel's virtual host controller still has a device that has left: one of
// these, or any at a port that counts as free.
bool portsHoldDepartedDevices(const Connection::Devices &devices);

} // namespace sim
