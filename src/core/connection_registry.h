#pragma once

#include <memory>

struct libusb_device_handle;

namespace vexausb {

class UsbConnection;

class ConnectionRegistry {
public:
    ConnectionRegistry() = delete;

    // LibUSB alone calls these two: from the one to the other, connections can be made.
    static void open(bool eventLoopRuns);
    static void close();

    // Takes over an open handle; null, with the handle left to the caller, when closed.
    static std::shared_ptr<UsbConnection> connect(libusb_device_handle *handle);

    // A connection says this of itself once it is closed.
    static void remove(const UsbConnection *connection);
};

} // namespace vexausb
