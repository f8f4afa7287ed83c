#pragma once

#include <cstdint>
#include <deque>
#include <string>

#include <sys/types.h>

#include "event_loop.h"

namespace sim {

// Plugs exported devices into this machine: runs the system's `usbip attach` for them, one at a
// time, since two at once would choose the same port.
class Attacher {
public:
    Attacher(EventLoop &eventLoop, uint16_t serverPort) : loop(eventLoop), port(serverPort) {}

    void attach(const std::string &busId);

private:
    void startNext();
    void awaitEnd(pid_t process);
    void retry();
    void finished();

    EventLoop &loop;
    const uint16_t port;
    std::deque<std::string> waiting; // the one being attached first
    int failures = 0;                // in a row, of that one
};

} // namespace sim
