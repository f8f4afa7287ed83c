#pragma once

#include <cstdint>
#include <deque>
#include <string>

#include <sys/types.h>

#include "connection.h"
#include "event_loop.h"
#include "exported_device.h"
#include "listen_address.h"

namespace sim {

// Plugs exported devices into this machine.  It runs the system's `usbip attach` for them, one at a
// time, because two at once would choose the same port.  If that is impossible, the constructor or
// the event loop throws std::runtime_error, whose text says what to do.
class Attacher {
public:
    Attacher(EventLoop &loop, const Connection::Devices &devices, const ListenAddress &server);
    ~Attacher();
    Attacher(const Attacher &) = delete;
    Attacher &operator=(const Attacher &) = delete;

    void attach(const ExportedDevice &device);
    // Whether the client is choosing a port at this moment.  No device may leave then: the kernel
    // would give away its port before it has noticed, and take the next device there for the old
    // one, whose transfers then never end.
    bool isChoosingPort() const { return choosing_; }

private:
    void startNext();
    void startClient();
    void awaitEnd(pid_t process);
    void retry();
    void finished();
    std::string clientOutput() const;

    EventLoop &loop_;
    const Connection::Devices &devices_; // all of the bus
    const std::string host_;
    const uint16_t port_;
    const int output_;                           // a file in memory to which the client writes
    std::deque<const ExportedDevice *> waiting_; // the first is the one that is being attached
    bool choosing_ = false;
    int postponed_ = 0; // how often the start of the client has been put off
    int failures_ = 0;  // how often the client has failed for it
};

} // namespace sim
