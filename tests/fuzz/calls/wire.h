#pragma once

#include <cstdint>
#include <utility>
#include <vector>

#include "support/fake_libusb.h"

// The device's side of the synchronous transfers that a call makes on this thread.
class Wire {
public:
    struct Transfer {
        uint8_t request; // 0: none, but data on an endpoint
        int asked;
        int result; // bytes, or a libusb error
        bool isBad() const { return result != asked; }
        int32_t status() const;
    };

    // The plan says which transfers fail, if any, and how.
    Wire(uint8_t plan, bool isThere)
        : plan_(plan), isThere_(isThere), before_(std::exchange(current, this)) {}
    ~Wire() { current = before_; }
    Wire(const Wire &) = delete;
    Wire &operator=(const Wire &) = delete;

    static void install();       // as the stand-in's handlers
    int32_t firstStatus() const; // of a transfer that failed; 0 when none did
    Transfer last() const { return transfers.empty() ? Transfer{} : transfers.back(); }
    bool refusesFirmware() const { return (plan_ & 128U) != 0; }

    std::vector<Transfer> transfers;

private:
    static inline thread_local Wire *current = nullptr;

    int answer(uint8_t request, uint8_t *data, int asked);
    int plannedResult(int asked) const;

    const uint8_t plan_;
    const bool isThere_;
    Wire *const before_; // of the call whose callback makes this one
    unsigned polls_ = 0;
};

// What the loader of that operation is given; all but the lowest bit of the choice say which byte
// is wrong, if that bit is set.
struct Image {
    Image(uint8_t operation, uint8_t choice);
    int32_t expected(const Wire &wire) const; // after these transfers

    const uint8_t loader;
    const bool isSpoiled;
    std::vector<uint8_t> bytes;

private:
    void append(uint32_t word);
};
