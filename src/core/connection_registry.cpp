#include "core/connection_registry.h"

#include <mutex>
#include <utility>
#include <vector>

#include "core/usb_connection.h"

namespace vexausb {

/*
 * All connections of the present libusb context, so that the last fini can close those that are
 * still open: libusb forgets the context of a handle that outlives it, and closing such a handle
 * later would use freed memory.
 *
 * A connection stays listed, and thereby alive, until it is closed or the last fini takes it over.
 */
namespace {

std::mutex mutex; // guards the members below; never held while a connection is closed
bool accepting = false;
bool loopRuns = false;
std::vector<std::shared_ptr<UsbConnection>> connections;

// Hands the connections out, so that closing them all needs no memory.
std::vector<std::shared_ptr<UsbConnection>> stopAccepting() {
    const std::lock_guard lock(mutex);
    accepting = false;
    return std::exchange(connections, {});
}

} // namespace

void ConnectionRegistry::open(bool eventLoopRuns) {
    const std::lock_guard lock(mutex);
    accepting = true;
    loopRuns = eventLoopRuns;
}

void ConnectionRegistry::close() {
    const auto open = stopAccepting();
    // All at once, so that the waiting times do not add up.
    for (const auto &connection : open)
        connection->prepareClose();
    for (const auto &connection : open)
        connection->close();
}

std::shared_ptr<UsbConnection> ConnectionRegistry::connect(libusb_device_handle *handle) {
    const std::lock_guard lock(mutex);
    if (!accepting)
        return nullptr;
    auto connection = std::make_shared<UsbConnection>(handle, loopRuns);
    connections.push_back(connection);
    return connection;
}

void ConnectionRegistry::remove(const UsbConnection *connection) {
    const std::lock_guard lock(mutex);
    std::erase_if(connections, [&](const auto &listed) { return listed.get() == connection; });
}

} // namespace vexausb
