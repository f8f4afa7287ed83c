#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "core/mutex.h"

namespace endurance {

// What all users have done so far.  Any thread.
class Tally {
public:
    std::atomic<uint64_t> bytes = 0;         // of streams, each looked at
    std::atomic<uint64_t> sessions = 0;      // that have ended
    std::atomic<uint64_t> eventBytes = 0;    // that came as they should
    std::atomic<uint64_t> removals = 0;      // that an open device's callback was told of
    std::atomic<uint64_t> overflows = 0;     // streams that ended since nobody drained them
    std::atomic<uint64_t> lostStreams = 0;   // streams that ended with an error that nobody caused
    std::atomic<uint64_t> silentStreams = 0; // streams that may have ended without a word
    std::atomic<uint64_t> timeouts = 0;      // of requests to the device
    std::atomic<uint64_t> open = 0;          // devices, now

    // Something that must not happen; tells it on standard error.
    void finding(const std::string &what);
    uint64_t findings() const { return findings_; }

    void addLatency(std::chrono::steady_clock::duration time);
    // The latencies since the last call, in milliseconds and in order.
    std::vector<double> takeLatencies();

private:
    std::atomic<uint64_t> findings_ = 0;
    vexausb::Mutex mutex_;
    std::vector<double> latencies_ GUARDED_BY(mutex_);
};

// What this process uses now.
struct Resources {
    static Resources now();

    uint64_t residentKib = 0;
    size_t threads = 0;
    size_t descriptors = 0;
    size_t mappings = 0; // but those of streams' buffers
};

} // namespace endurance
