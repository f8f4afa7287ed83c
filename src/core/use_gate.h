#pragma once

#include <cstdint>

#include "core/mutex.h"

namespace vexausb {

/*
 * Keeps something from being closed while it is in use: a libusb context, a libusb handle.  A user
 * enters the gate, and works only if it was let in.  Whoever closes the thing closes the gate
 * first, which waits for the users inside.
 *
 * Threads: any.  The mutex is never held for long.
 */
class UseGate {
public:
    // What enter() returns: the user is inside until it is destroyed.
    class Use {
    public:
        static Use none() { return Use(nullptr); }
        ~Use() EXCLUDES(gate_->mutex_);
        Use(const Use &) = delete;
        Use &operator=(const Use &) = delete;

        // Whether the user was let in.
        explicit operator bool() const { return gate_ != nullptr; }
        // Whether the gate has closed since: the user should leave soon.  Only if it was let in.
        bool closeRequested() const EXCLUDES(gate_->mutex_);

    private:
        friend class UseGate;
        explicit Use(UseGate *gate) : gate_(gate) {}

        UseGate *const gate_;
    };

    explicit UseGate(bool startsOpen) : isOpen_(startsOpen) {}
    UseGate(const UseGate &) = delete;
    UseGate &operator=(const UseGate &) = delete;

    void open() EXCLUDES(mutex_);
    Use enter() EXCLUDES(mutex_);
    // Lets nobody in any more, and returns at once.
    void refuse() EXCLUDES(mutex_);
    // Lets nobody in any more, and waits until all users have left.  The caller must not be one.
    void close() EXCLUDES(mutex_);

private:
    // Of a user that is destroyed; a method, since locks are not checked in destructors.
    void leave() EXCLUDES(mutex_);

    mutable Mutex mutex_;
    Condition left_;
    bool isOpen_ GUARDED_BY(mutex_);
    uint64_t users_ GUARDED_BY(mutex_) = 0;
};

} // namespace vexausb
