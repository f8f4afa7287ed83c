#pragma once

#include <cstdint>

#include "core/mutex.h"

namespace vexausb {

/*
 * Keeps something that must not be closed under its users' feet (a libusb context, a libusb
 * handle).  A user enters, and works only if it was let in; whoever closes the thing first closes
 * the gate.
 *
 * Threads: any.  The mutex is held for a few instructions only.
 */
class UseGate {
public:
    // One user's stay; leaves when it is destroyed.
    class Use {
    public:
        explicit Use(UseGate *gate) : gate_(gate) {}
        ~Use();
        Use(const Use &) = delete;
        Use &operator=(const Use &) = delete;

        // Whether the user was let in.
        explicit operator bool() const { return gate_ != nullptr; }
        // Whether somebody waits for this user to leave.
        bool wanted() const;

    private:
        UseGate *const gate_;
    };

    explicit UseGate(bool startsOpen) : isOpen_(startsOpen) {}
    UseGate(const UseGate &) = delete;
    UseGate &operator=(const UseGate &) = delete;

    void open() EXCLUDES(mutex_);
    Use enter() EXCLUDES(mutex_);
    // Turns new users away.
    void refuse() EXCLUDES(mutex_);
    // Turns new users away and waits for those inside, of whom the caller must not be one.
    void close() EXCLUDES(mutex_);

private:
    mutable Mutex mutex_;
    Condition left_;
    bool isOpen_ GUARDED_BY(mutex_);
    uint64_t users_ GUARDED_BY(mutex_) = 0;
};

} // namespace vexausb
