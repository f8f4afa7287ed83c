#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace vexausb {

/*
 * Keeps something that must not be closed under its users' feet (a libusb context, a libusb
 * handle).  A user enters, and works only if it was let in; whoever closes the thing first closes
 * the gate.
 *
 * Lock: `mutex` guards all members; it is held for a few instructions only.
 */
class UseGate {
public:
    // One user's stay; leaves when it is destroyed.
    class Use {
    public:
        explicit Use(UseGate *entered) : gate(entered) {}
        ~Use();
        Use(const Use &) = delete;
        Use &operator=(const Use &) = delete;

        explicit operator bool() const { return gate != nullptr; }
        // Whether somebody waits for this user to leave.
        bool wanted() const;

    private:
        UseGate *const gate;
    };

    explicit UseGate(bool startsOpen) : isOpen(startsOpen) {}
    UseGate(const UseGate &) = delete;
    UseGate &operator=(const UseGate &) = delete;

    void open();
    Use enter();
    void refuse(); // turns new users away
    void close();  // and waits for those inside

private:
    mutable std::mutex mutex;
    std::condition_variable left;
    bool isOpen;
    uint64_t users = 0;
};

} // namespace vexausb
