#pragma once

#include <cstdint>
#include <deque>
#include <string>

#include <sys/types.h>

#include "event_loop.h"
#include "exported_device.h"

namespace sim {

// Plugs exported devices into this machine: runs the system's `usbip attach` for them, one at a
// time, since two at once would choose the same port.  When that cannot be done, the
// constructor or the event loop throws std::runtime_error, which says what to do.
class Attacher {
public:
    Attacher(EventLoop &loop, uint16_t port);
    ~Attacher();
    Attacher(const Attacher &) = delete;
    Attacher &operator=(const Attacher &) = delete;

    void attach(const ExportedDevice &device);

private:
    void startNext();
    void awaitEnd(pid_t process);
    void retry();
    void finished();
    std::string clientsWords() const;

    EventLoop &loop_;
    const uint16_t port_;
    const int output_;                           // of the client
    std::deque<const ExportedDevice *> waiting_; // the one being attached first
    int failures_ = 0;                           // in a row, of that one
};

} // namespace sim
