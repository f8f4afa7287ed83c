#pragma once

#include <memory>

struct libusb_device_handle;

/*
 * The connections of the present libusb context, so that the last fini can close those that are
 * still open: libusb forgets the context of a handle that outlives it, and closing such a handle
 * later would use freed memory.
 *
 * Connections are held weakly: each belongs to its device, which closes it before it lets go.
 */
namespace vexausb {

class UsbConnection;

namespace connection_registry {

// LibUSB alone calls these two: from the one to the other, connections can be made.
void open(bool eventLoopRuns);
// Closes those that are open, all at once, so that the waiting times do not add up.  Needs no
// memory.
void close();

// Takes over an open handle; null, with the handle left to the caller, when closed.  Any thread.
std::shared_ptr<UsbConnection> connect(libusb_device_handle *handle);

} // namespace connection_registry

} // namespace vexausb
