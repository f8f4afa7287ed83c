#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "fuzz/calls/scheduler.h"

/*
 * What the library may do, told apart from it.  Where calls overlap, several things may be true,
 * and what follows from any of them is allowed; else one.  Where threads run freely all may be.
 */
namespace model {

inline constexpr int32_t kThrew = 100; // an exception instead of a status

// Says so on standard output: a fuzzer closes the other, on which the library logs.
inline void require(bool holds, const char *what, int64_t value = 0) {
    if (!scheduler::kOrders || holds)
        return;
    std::printf("model: %s (%lld)\n", what, static_cast<long long>(value));
    std::fflush(stdout);
    std::abort();
}

inline uint64_t happened = 0; // counts what happens
inline uint64_t tick() {
    return scheduler::kOrders ? ++happened : 0;
}

// Something that is so while a number is above 0, which calls change at an unknown moment.
class Fact {
public:
    void begin(int change) {
        if (!scheduler::kOrders)
            return;
        note();
        (change > 0 ? rising_ : falling_) += std::abs(change);
    }
    void end(int change, bool isDone) {
        if (!scheduler::kOrders)
            return;
        (change > 0 ? rising_ : falling_) -= std::abs(change);
        note(); // what others could see without this call
        level_ += isDone ? change : 0;
    }
    void change(int by) { // at this very moment
        begin(by);
        end(by, true);
    }
    void clear() {
        note();
        level_ = 0;
    }
    // At some moment since then.
    bool canBe(bool value, uint64_t since = happened) const {
        return !scheduler::kOrders || isPossible(value) || last_[value ? 1 : 0] > since;
    }
    // At this moment, for certain.
    bool is(bool value) const { return scheduler::kOrders && !isPossible(!value); }
    bool isChanging() const { return rising_ + falling_ > 0; }

private:
    bool isPossible(bool value) const { return value ? level_ + rising_ > 0 : level_ <= falling_; }
    void note() {
        tick();
        for (const bool value : {false, true})
            last_[value ? 1 : 0] = isPossible(value) ? happened : last_[value ? 1 : 0];
    }

    int level_ = 0, rising_ = 0, falling_ = 0;
    std::array<uint64_t, 2> last_{}; // when it was possibly so
};

// The bytes of an event pipe, or of one run of a stream.
struct Flow {
    static uint8_t byteAt(uint64_t position) { // never an event of the stream's own
        return static_cast<uint8_t>(16 + (position * 0x9E3779B97F4A7C15ULL >> 56) % 240);
    }
    // The device ends a transfer.
    void bring(uint8_t *buffer, int length, int actual, bool completes) {
        for (int i = 0; completes && i < actual; ++i)
            buffer[i] = byteAt(sent + static_cast<uint64_t>(i));
        if (!completes || actual < length)
            gapAt = std::min(gapAt, sent + static_cast<uint64_t>(completes ? actual : 0));
        sent += completes ? static_cast<uint64_t>(bufferSize == 0 ? actual : length) : 0;
        failed += completes ? 0 : 1;
        lost += completes ? 0 : static_cast<uint64_t>(length);
    }
    bool mustEnd() const { return isStrict && gapAt != UINT64_MAX; }
    // Whether the ring may have been full with four transfers more.
    bool mayOverflow() const {
        const uint64_t piece = std::min<uint64_t>(bufferSize, 524288) + 1024;
        return sent + 4 * piece > (releasedBefore + bufferCount) * bufferSize;
    }
    void checkBuffer(uint64_t number, const uint8_t *data) const {
        for (uint64_t i = 0, at = number * bufferSize; i < bufferSize && at < gapAt; ++i, ++at)
            require(data[i] == byteAt(at), "a wrong byte in the stream", static_cast<int64_t>(at));
    }

    uint64_t bufferSize = 0, bufferCount = 0; // 0: an event pipe
    bool isStrict = false;
    uint64_t sent = 0, lost = 0, gapAt = UINT64_MAX;
    uint64_t failed = 0;                    // transfers
    uint64_t heard = 0;                     // buffers reported full, or bytes
    uint64_t locks = 0, releasedBefore = 0; // releasedBefore: when the phase began
    bool isDead = false, hasStarted = false, hasError = false, hasStopped = false;
    bool outOfStep = false; // something was locked early, or by two at once
};

} // namespace model
