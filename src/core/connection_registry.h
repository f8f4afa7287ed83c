#pragma once

#include <memory>

struct libusb_device_handle;

/*
 * The connections of the current libusb context.  The last fini closes those that are still open,
 * because closing a libusb handle after the end of its context would use freed memory.
 *
 * The registry holds weak references: a connection belongs to its device, which closes it before
 * releasing it.
 */
namespace vexausb {

class UsbConnection;

namespace connection_registry {

// Lets connections be made until close().  Only LibUSB::init and LibUSB::fini call these two.
void open(bool eventLoopRuns);
// Closes all open connections at once, so that their waiting times do not add up.  Allocates no
// memory.
void close();

// Gives back what no connection uses at the moment, if more memory is shared with the kernel than
// the attached devices leave room for.  The caller holds no mutex but initFiniMutex.  Throws
// std::bad_alloc.
void makeRoom();

// Makes a connection that owns the open handle.  Null when the registry is closed; then, and when
// it throws std::bad_alloc, the handle still belongs to the caller.  Any thread.
std::shared_ptr<UsbConnection> connect(libusb_device_handle *handle);

} // namespace connection_registry

} // namespace vexausb
