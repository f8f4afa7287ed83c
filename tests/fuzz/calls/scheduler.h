#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

/*
 * Runs the threads of an input one at a time.  At each lock, unlock and start of a thread the input
 * says who goes on, so it reproduces its order, and "nobody can go on" is a deadlock for certain.
 * Time is virtual: it passes when all wait for it, or when the input says so.
 *
 * scheduler.cpp stands between the program and the C library's functions for threads and time.
 * With VEXA_FREE_THREADS it is left out: from the thread sanitizer it would hide every race.
 */
namespace scheduler {

#ifdef VEXA_FREE_THREADS
inline constexpr bool kOrders = false;
inline void begin(std::span<const uint8_t> /*choices*/) {}
inline void end() {}
inline void settle() {}
inline bool holdsLock() {
    return false;
}
inline bool failNextThread(bool /*fails*/) {
    return true;
}
inline bool longWaitEndedEarly() {
    return true;
}
#else
inline constexpr bool kOrders = true;
// The calling thread is the first; those that it starts, and so on, are the others.
void begin(std::span<const uint8_t> input);
void end();    // all others must have ended
void settle(); // returns when no other can go on, and no time limit is left to pass
bool holdsLock();
// Whether the system refuses to start the next thread; answers what held till now.
bool failNextThread(bool fails);
// Whether the input has ended a long wait, such as that for a stopped transfer, since begin(),
// while somebody could go on.
bool longWaitEndedEarly();
#endif

} // namespace scheduler
