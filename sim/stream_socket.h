#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <span>

#include "usb.h"

namespace sim {

// A piece of output; its memory is not cleared.
class OutputPiece {
public:
    explicit OutputPiece(size_t size)
        : bytes(std::make_unique_for_overwrite<uint8_t[]>(size)), length(size) {}

    std::span<uint8_t> all() { return {bytes.get(), length}; }
    void shorten(size_t size) { length = size; }

private:
    std::unique_ptr<uint8_t[]> bytes;
    size_t length;
};

// A connected TCP socket that never blocks: keeps what has come and not been consumed, and what
// has yet to go.
class StreamSocket {
public:
    explicit StreamSocket(int ownedDescriptor) : socket(ownedDescriptor) {}
    ~StreamSocket();
    StreamSocket(const StreamSocket &) = delete;
    StreamSocket &operator=(const StreamSocket &) = delete;

    int descriptor() const { return socket; }

    // False once the peer has gone.
    bool receive();
    std::span<const uint8_t> received() const { return std::span(input).subspan(consumed); }
    void consume(size_t count) { consumed += count; }

    void send(OutputPiece piece);
    void send(const Bytes &bytes);
    // False when the peer has gone.
    bool flush();
    bool drained() const { return output.empty(); }
    // So much waits to be sent that no more should be made.
    bool isFull() const;

private:
    const int socket;
    Bytes input;
    size_t consumed = 0;
    std::deque<OutputPiece> output;
    size_t sentOfFront = 0;
    size_t queued = 0; // bytes in `output`, those of its front that were sent included
};

} // namespace sim
