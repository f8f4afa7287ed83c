#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <span>

#include "usb.h"

namespace sim {

// A piece of output, with memory that is not initialised.
class OutputPiece {
public:
    explicit OutputPiece(size_t size)
        : bytes_(std::make_unique_for_overwrite<uint8_t[]>(size)), length_(size) {}

    std::span<uint8_t> all() { return {bytes_.get(), length_}; }
    void shorten(size_t size) { length_ = size; }

private:
    std::unique_ptr<uint8_t[]> bytes_;
    size_t length_;
};

// A connected TCP socket that never blocks.  It keeps the input that was not consumed yet and the
// output that could not be sent yet.
class StreamSocket {
public:
    explicit StreamSocket(int descriptor) : descriptor_(descriptor) {}
    ~StreamSocket();
    StreamSocket(const StreamSocket &) = delete;
    StreamSocket &operator=(const StreamSocket &) = delete;

    int descriptor() const { return descriptor_; }

    // Takes in what has come; false when the peer has closed the connection.
    bool receive();
    std::span<const uint8_t> received() const { return std::span(input_).subspan(consumed_); }
    void consume(size_t count) { consumed_ += count; }
    void discard() { consumed_ = input_.size(); } // all that was received

    void send(OutputPiece piece);
    void send(const Bytes &bytes);
    // Sends as much as possible; false when the connection is broken.
    bool flush();
    // Tells the peer that nothing more comes.
    void endOutput();
    bool drained() const { return output_.empty(); }
    // Whether so much output is waiting that no more should be added.
    bool isFull() const;

private:
    const int descriptor_;
    Bytes input_;
    size_t consumed_ = 0;
    std::deque<OutputPiece> output_;
    size_t sentOfFront_ = 0;
    size_t queued_ = 0; // bytes in `output_`, also those of its front that were sent
};

} // namespace sim
