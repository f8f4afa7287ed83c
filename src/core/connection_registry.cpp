#include "core/connection_registry.h"

#include <utility>
#include <vector>

#include "core/mutex.h"
#include "core/shared_memory_budget.h"
#include "core/usb_connection.h"

namespace vexausb::connection_registry {

namespace {

using Connections = std::vector<std::weak_ptr<UsbConnection>>;

Mutex mutex; // not held while a connection is being closed
bool accepting GUARDED_BY(mutex) = false;
bool loopRuns GUARDED_BY(mutex) = false;
Connections connections GUARDED_BY(mutex);

Connections stopAccepting() {
    const MutexLock lock(mutex);
    accepting = false;
    return std::exchange(connections, {});
}

Connections presentConnections() {
    const MutexLock lock(mutex);
    return connections;
}

} // namespace

void open(bool eventLoopRuns) {
    const MutexLock lock(mutex);
    accepting = true;
    loopRuns = eventLoopRuns;
}

void close() {
    const Connections remaining = stopAccepting();
    for (const auto &listed : remaining) {
        if (const auto connection = listed.lock())
            connection->prepareClose();
    }
    for (const auto &listed : remaining) {
        if (const auto connection = listed.lock())
            connection->close();
    }
}

void makeRoom() {
    if (!shared_memory_budget::isOverdrawn())
        return;
    for (const auto &listed : presentConnections()) {
        if (const auto connection = listed.lock())
            connection->releaseUnused();
    }
}

std::shared_ptr<UsbConnection> connect(libusb_device_handle *handle) {
    const MutexLock lock(mutex);
    if (!accepting)
        return nullptr;
    auto connection = std::make_shared<UsbConnection>(handle, loopRuns);
    std::erase_if(connections, [](const auto &listed) { return listed.expired(); });
    connections.push_back(connection);
    return connection;
}

} // namespace vexausb::connection_registry
