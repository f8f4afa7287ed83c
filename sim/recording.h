#pragma once

#include <cstdint>
#include <span>
#include <string>

namespace sim {

// A file whose bytes a simulated stream sends, over and over.
class Recording {
public:
    // Throws std::invalid_argument, with a message for the user, when it cannot be replayed.
    explicit Recording(const std::string &path);
    ~Recording();
    Recording(const Recording &) = delete;
    Recording &operator=(const Recording &) = delete;

    // Fills `room` with what the stream has from a position on; false when the file has become
    // unreadable.
    bool fill(uint64_t position, std::span<uint8_t> room) const;

private:
    const int descriptor_;
    uint64_t size_ = 0;
};

} // namespace sim
