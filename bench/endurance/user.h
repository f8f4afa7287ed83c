#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "core/mutex.h"
#include "inbox.h"
#include "tally.h"
#include "vexa_usb.h"

namespace endurance {

// What all users of this process are to do.
struct Settings {
    std::chrono::milliseconds longest{5000}; // session
    std::chrono::milliseconds delay{0};      // each answer of the stream comes that much later
    uint64_t bufferSize = 0;                 // 0: a random shape for each stream
    uint64_t bufferCount = 0;
    double pulls = 0; // devices that are pulled each second, by all users together
    bool overflows = false;
    bool foreign = false; // others pull devices, too
    bool strict = false;  // the streams, by their environment
};

// The devices that users of this process have, by their ids in the list.
class Claims {
public:
    // Opens a listed instrument that nobody of this process has; null when there is none.
    std::pair<_vexa_usb_device *, uint64_t> open(Inbox &inbox, uint64_t random);
    void giveBack(uint64_t id);

private:
    vexausb::Mutex mutex_;
    std::set<uint64_t> taken_ GUARDED_BY(mutex_);
};

/*
 * Uses simulated instruments one after the other, each for a session: opens one, streams from it
 * and looks at every byte, has it send events, sends it data that come back, and ends that in one
 * of the ways in which it can end.  Whatever the library does that it must not is a finding.
 *
 * One thread runs a user; others set `leave`, `pull` and `mayGiveUp`.
 */
class User {
public:
    User(const Settings &settings, Claims &claims, Tally &tally, uint64_t seed)
        : settings_(settings), claims_(claims), tally_(tally), engine_(seed) {}
    User(const User &) = delete;
    User &operator=(const User &) = delete;

    // Sessions until told to leave; then, if so wished, one more that ends with the removal of the
    // device.
    void run(bool untilRemoved);

    std::atomic<bool> leave = false;
    std::atomic<bool> pull = false;      // the device; taken back once that is done
    std::atomic<bool> isLast = false;    // the last session streams
    std::atomic<bool> mayGiveUp = false; // the devices go now, and none may be left for this user

private:
    enum class Ending { Stop, Close, Pull, Overflow, Removal };

    uint64_t random(uint64_t from, uint64_t to) {
        return std::uniform_int_distribution<uint64_t>(from, to)(engine_);
    }
    bool openDevice();
    void closeDevice();
    void session(Ending ending);
    bool startStream();
    bool drain(std::chrono::steady_clock::time_point until);
    bool drainOne();
    // A finding, except in a default stream that others may disturb: it ends when its last transfer
    // has failed, and no event tells of that.
    void noteSilence(const std::string &finding);
    bool sendEvents();
    void loopBack();
    void pullDevice();
    void end(Ending ending);
    void afterTheEnd();
    // Whether the call did what it should, or the device was removed; anything else is a finding.
    bool isFine(int32_t status, const char *call);
    int32_t control(uint8_t request, uint16_t value, uint16_t index, void *data, size_t size);

    const Settings &settings_;
    Claims &claims_;
    Tally &tally_;
    std::mt19937_64 engine_;
    // In turn, since a callback can run once more after the close.
    std::array<Inbox, 8> inboxes_;
    size_t turn_ = 0;

    // Of the session.
    Inbox *inbox_ = nullptr;
    _vexa_usb_device *device_ = nullptr;
    uint64_t id_ = 0;
    uint64_t seen_ = 0;     // full buffers
    uint64_t position_ = 0; // in the stream
    bool eventsCame_ = false;
    bool mayBeRemoved_ = false;
};

} // namespace endurance
