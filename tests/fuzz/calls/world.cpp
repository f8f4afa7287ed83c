#include "fuzz/calls/world.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <memory>
#include <system_error>
#include <thread>
#include <utility>

#include "core/event_duty.h"
#include "core/global_state.h"
#include "fuzz/calls/scheduler.h"
#include "fuzz/calls/wire.h"
#include "support/allocations.h"
#include "support/fake_shared_memory.h"

using model::Flow;
using model::require;

namespace calls {

World::World(std::span<const uint8_t> input) {
    const uint8_t settings = input.empty() ? 0 : input[0];
    constexpr std::array kModes{"", "strict", "default", "odd"};
    constexpr std::array kLogs{"", "", "debug", "odd"};
    setenv("VEXA_USB_STREAM", kModes[settings & 3U], 1);
    setenv("VEXA_USB_LOG", kLogs[settings >> 2U & 3U], 1);
    setenv("VEXA_USB_RING", (settings & 64U) != 0 ? "private" : "shared", 1);
    fake::shareMemory(static_cast<fake::Sharing>((settings >> 4U & 3U) % 3));
    fake::limitTransfers("256");
    Wire::install();
    size_t i = std::min<size_t>(1, input.size());
    for (; i + 4 <= input.size() && input[i] != 0xFF; i += 4) {
        const Operation op{input[i], input[i + 1], input[i + 2], input[i + 3]};
        (op.actor() == 3 ? callbackOperations_ : operations_).push_back(op);
    }
    order_ = input.subspan(std::min(i + 1, input.size()));
    constexpr std::array<std::array<uint16_t, 3>, 6> kKinds{{{VEXA_USB_VENDOR_ID, 1, 0x0200},
                                                             {VEXA_USB_VENDOR_ID, 2, 0x0300},
                                                             {VEXA_USB_VENDOR_ID, 3, 0x0100},
                                                             {0x04B4, 0x8613, 0x0200},
                                                             {0x15A2, 0x0076, 0x0110},
                                                             {0x04B4, 0x1234, 0x0200}}};
    for (size_t place = 0; place < places_.size(); ++place) {
        const auto [vendor, product, bcdUsb] = kKinds[place];
        places_[place].device = fake::attach(vendor, product, bcdUsb);
        places_[place].streams = bcdUsb >= 0x0110;
        places_[place].isSupported = place + 1 < places_.size();
        fake::describe(places_[place].device).packetSizes[0x85] = 0;
        fake::detach(places_[place].device);
    }
}

void World::run() {
    scheduler::begin(order_);
    const allocations::Exempt exempt;
    for (auto begin = operations_.cbegin(); begin != operations_.cend();) {
        const auto end =
            std::find_if(begin, operations_.cend(), std::mem_fn(&Operation::isBarrier));
        runPhase(begin, end);
        begin = end == operations_.cend() ? end : end + 1;
    }
    callbacksDone_ = callbackOperations_.size();
    rest();
    perform({0, 0, 0, 0}, nullptr, nullptr); // init
    for (const uint8_t slot : std::array<uint8_t, 3>{0, 1, 2})
        perform({10, slot, 0, 0}, nullptr, nullptr); // close
    for (auto &list : lists_)
        freeList(list);
    for (auto &list : unfreed_)
        freeList(list);
    while (uses_ > 0)
        perform({1, 0, 0, 0}, nullptr, nullptr); // fini
    rest();
    require(fake::sharedBlocks() == 0 && fake::toldToOthers() == 0, "shared memory is left");
    scheduler::end();
}

void World::runPhase(Operations::const_iterator begin, Operations::const_iterator end) {
    const auto performAll = [=, this](uint8_t actor) {
        const allocations::Exempt exempt;
        for (auto op = begin; op != end; ++op) {
            if (op->actor() == actor)
                perform(*op, nullptr, nullptr);
        }
    };
    std::vector<std::thread> threads;
    for (uint8_t actor = 1; actor < 3; ++actor) {
        try {
            if (std::any_of(begin, end, [=](const auto &op) { return op.actor() == actor; }))
                threads.emplace_back(performAll, actor);
        } catch (const std::system_error &) { // refused, as a thread of the library was to be
        }
    }
    performAll(0);
    for (std::thread &thread : threads)
        thread.join();
    rest();
    checkAtRest();
}

void World::rest() {
    do {
        scheduler::settle();
        std::this_thread::sleep_for(std::chrono::microseconds(100));
    } while (callbacksRunning_ > 0);
    scheduler::settle();
}

void World::runInCallback(const _vexa_usb_device_list_item *item, Handle *busy) {
    ++callbacksRunning_;
    const size_t next = callbacksDone_++;
    if (next < callbackOperations_.size())
        perform(callbackOperations_[next], item, busy);
    --callbacksRunning_;
}

void World::onEvent(uint32_t event, void *data) {
    const allocations::Exempt exempt;
    auto &handle = *static_cast<Handle *>(data);
    handle.heard(event);
    handle.world->runInCallback(nullptr, nullptr);
}

void World::onProgress(void *data, double done) {
    const allocations::Exempt exempt;
    auto *const busy = static_cast<Handle *>(data);
    require(done > 0 && done <= 1, "progress outside 0 to 1");
    busy->world->runInCallback(nullptr, busy);
}

void World::onChange(uint32_t type, const _vexa_usb_device_list_item *item, void *data) {
    const allocations::Exempt exempt;
    auto &registration = *static_cast<Registration *>(data);
    if (scheduler::kOrders) {
        require(!scheduler::holdsLock(), "a list callback under a lock");
        require(registration.isActive || ++registration.callsAfterEnd <= 1, "one after its end");
        Place *const place = registration.world->placeOf(item->product_id);
        require(place != nullptr, "a change of an unknown device", item->product_id);
        place->see(item->id);
        const bool isAdded = type == VEXA_USB_DEVICE_LIST_EVENT_ADDED;
        const bool isNew = isAdded ? registration.entries.insert(item->id).second
                                   : registration.entries.erase(item->id) == 1;
        require(isAdded || type == VEXA_USB_DEVICE_LIST_EVENT_REMOVED, "an unknown change", type);
        require(isNew || (!registration.isExact && !isAdded), "a change that is none", type);
    }
    registration.world->runInCallback(item, nullptr);
}

Flow *Handle::runThat(bool hasStarted) {
    const auto end = runs.begin() + runCount;
    const auto found = std::find_if(runs.begin(), end, [=](const Flow &run) {
        return !run.isDead && run.hasStarted == hasStarted && !run.hasStopped;
    });
    return found == end ? nullptr : &*found;
}

Flow &Handle::latest() {
    size_t i = runCount;
    while (i > 1 && runs[i - 1].isDead)
        --i;
    return runs[i == 0 ? 0 : i - 1];
}

void Handle::noteOverlap(uint64_t since) {
    if (scheduler::kOrders)
        isLoose = isLoose || (stream.canBe(true, since) && stream.canBe(false, since));
}

void Handle::heard(uint32_t event) {
    if (!scheduler::kOrders)
        return;
    require(!scheduler::holdsLock(), "a device callback under a lock");
    require(device != nullptr, "an event before the handle was written", event);
    require(closedAt == 0 || ++callsAfterClose <= 1, "an event after the close", event);
    Flow *const going = runThat(true);
    Flow *const coming = runThat(false);
    Flow *const failing = going != nullptr ? going : coming;
    if (event == VEXA_USB_DEVICE_EVENT_REMOVED) {
        require(++removals == 1, "two removals of one device");
        removedAt = model::tick();
    } else if (event >= 16 && event <= UINT8_MAX) {
        require(bytes.heard < bytes.sent && event == Flow::byteAt(bytes.heard), "a wrong byte");
        ++bytes.heard;
    } else if (isLoose) {
        return;
    } else if (event == VEXA_USB_DEVICE_EVENT_DATA_STREAM_STARTED) {
        require(going == nullptr && coming != nullptr, "a start of no stream");
        coming->hasStarted = true;
    } else if (event == VEXA_USB_DEVICE_EVENT_DATA_STREAM_STOPPED) {
        require(going != nullptr, "a stop of no stream");
        going->hasStopped = true;
    } else if (event == VEXA_USB_DEVICE_EVENT_DATA_STREAM_ERROR) {
        require(failing != nullptr && !failing->hasError, "a second error, or one of no stream");
        require(failing->mustEnd() || fake::refusals(failing) > 0 || failing->mayOverflow() ||
                    world->isStarved(openedAt),
                "an error without a cause");
        failing->hasError = true;
    } else {
        require(event == VEXA_USB_DEVICE_EVENT_DATA_STREAM_BUFFER_FULL, "an unknown event", event);
        require(going != nullptr && ++going->heard * going->bufferSize <=
                                        (going->isStrict ? std::min(going->sent, going->gapAt)
                                                         : going->sent + going->lost),
                "a buffer full that is not");
    }
}

bool World::followsBus() const {
    return initialized_.is(true) && changing_.is(false) && !hasEnded_ && !isPartial_ &&
           !isStarving_;
}

Place *World::placeOf(uint16_t product) {
    const auto found = std::find_if(places_.begin(), places_.end(), [=](const Place &place) {
        return place.isSupported && fake::describe(place.device).descriptor.idProduct == product;
    });
    return found == places_.end() ? nullptr : &*found;
}

void World::checkAtRest() {
    if (!scheduler::kOrders)
        return;
    const bool isLoose = isPartial_ || starvedAt_ > restedAt_;
    std::set<uint64_t> entries;
    List list = nullptr;
    const int32_t status = vexa_usb_get_device_list(&list, nullptr);
    require(status == (initialized_.is(true) ? 0 : -3) || isLoose, "a list, or none", status);
    for (size_t i = 0; list != nullptr && list[i] != nullptr; ++i) {
        require(entries.empty() || *entries.rbegin() < list[i]->id, "a list out of order");
        entries.insert(list[i]->id);
        Place *const place = placeOf(list[i]->product_id);
        require(place != nullptr, "an unknown device in the list", list[i]->product_id);
        place->see(list[i]->id);
    }
    if (list != nullptr)
        vexa_usb_free_device_list(list);
    for (Place &place : places_) {
        const bool isListed = entries.count(place.entry) != 0;
        require(!place.isKnown || isLoose || place.isListed == isListed,
                "in the list, or not, against what happened", isListed ? 1 : 0);
        place.isListed = isListed;
        place.isKnown = place.isSeen = true;
    }
    for (Registration &registration : registrations_) {
        if (!registration.isActive || registration.isDoubtful || initialized_.is(false))
            continue;
        require(!registration.isExact || registration.entries == entries, "changes were not told");
        registration.entries = entries;
        registration.isExact = true;
    }
    for (Handle &handle : handles_) {
        if (handle.isOpen && handle.closedAt == 0)
            checkHandle(handle, entries);
    }
    if (hasEnded_ || isPartial_ || starvedAt_ > 0 || scheduler::longWaitEndedEarly())
        mayAbandon_ = true;
    require(mayAbandon_ || !fake::takeClosedInFlight(), "closed with a transfer in flight");
    isPartial_ = isPartial_ && !initialized_.is(false);
    restedAt_ = model::tick();
}

void World::checkHandle(Handle &handle, const std::set<uint64_t> &entries) {
    require(entries.count(handle.entry) + handle.removals == 1, "removed, or not, wrongly");
    if (handle.removals > 0 && std::exchange(handle.hasClaim, false))
        handle.place->isClaimed = false;
    if (hasEnded_ || isPartial_ || starvedAt_ > handle.openedAt)
        return;
    const auto flying = [all = fake::inFlight()](const Flow &flow) {
        return static_cast<uint64_t>(std::count_if(
            all.begin(), all.end(), [&](const auto &one) { return one.owner == &flow; }));
    };
    require(handle.bytes.heard == handle.bytes.sent, "bytes are missing");
    const bool isArmed = handle.pipe.is(true) && !handle.pipeEnded && handle.bytes.failed == 0 &&
                         fake::refusals(&handle.bytes) == handle.refusals;
    require(flying(handle.bytes) == (isArmed ? 1U : 0U), "the event pipe's transfer");
    if (handle.isLoose)
        return;
    Flow *const run = handle.runThat(true);
    require((run != nullptr) == handle.stream.is(true) || handle.removals > 0,
            "started or stopped, and not told");
    if (run == nullptr || handle.stream.is(false))
        return;
    run->releasedBefore = run->locks - (handle.locked.is(true) ? 1 : 0);
    require(run->hasError || (!run->mustEnd() && fake::refusals(run) == 0), "an error not told");
    require(flying(*run) == (run->hasError ? 0 : 3 - run->failed), "the stream's transfers");
    if (!run->hasError && run->failed == 0)
        require(run->heard == run->sent / run->bufferSize, "full buffers not told");
}

} // namespace calls

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static auto *const worlds = new std::vector<std::unique_ptr<calls::World>>;
    fake::reset();
    vexausb::libusbRunning.store(false);
    vexausb::event_duty::yieldToSynchronousTransfers(); // forgets the mark
    vexausb::libusbRunning.store(true);
    worlds->push_back(std::make_unique<calls::World>(std::span(data, size)));
    worlds->back()->run();
    if (scheduler::kOrders) // else a last callback may still be at work
        worlds->clear();
    return 0;
}
