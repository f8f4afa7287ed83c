#pragma once

#include <cstdint>
#include <map>
#include <memory>

#include "connection.h"
#include "event_loop.h"

namespace sim {

class Server {
public:
    Server(EventLoop &eventLoop, Connection::Devices &exportedDevices, uint16_t port);
    ~Server();
    Server(const Server &) = delete;
    Server &operator=(const Server &) = delete;

    uint16_t port() const;

private:
    void acceptClient();
    void watchClient(int descriptor);
    void serve(int descriptor, bool readable);
    void end(int descriptor);

    EventLoop &loop;
    Connection::Devices &devices;
    const int listener;
    std::map<int, std::unique_ptr<Connection>> connections;
};

} // namespace sim
