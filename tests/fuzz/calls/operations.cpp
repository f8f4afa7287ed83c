// What the operations of an input do, and what the model expects of each call.
#include <algorithm>
#include <array>
#include <chrono>
#include <cstdlib>
#include <exception>
#include <initializer_list>
#include <memory>
#include <string_view>
#include <thread>
#include <utility>

#include "fuzz/calls/wire.h"
#include "fuzz/calls/world.h"
#include "support/allocations.h"
#include "support/fake_shared_memory.h"

using model::Flow;
using model::kThrew;
using model::require;
using model::tick;
using scheduler::kOrders;

namespace calls {

namespace {

constexpr uint8_t kThreadFails = 0x80;
thread_local uint8_t starveNext = 0; // what this thread's next call is refused
constexpr std::array<uint8_t, 8> kEndpoints{0x81, 0x82, 0x83, 0x03, 0x82, 0x85, 0x8F, 0x00};

// 0 where there is none.
uint16_t packetSizeOf(uint8_t endpoint) {
    return endpoint == 0x81 ? 64 : (endpoint & 0x7FU) == 3 || endpoint == 0x82 ? 512 : 0;
}

} // namespace

Call::Call(World &world, const Handle *handle, model::Fact *fact, int change)
    : since(tick()),
      world_(world),
      handle_(handle),
      fact_(fact),
      change_(change),
      failures_(fake::failuresMet) {
    if (fact_ != nullptr)
        fact_->begin(change_);
}

template <typename Function>
int32_t Call::make(Function function) {
    uint8_t refused = std::exchange(starveNext, 0);
    if (refused > 0 && world_.isStarving_.exchange(true))
        refused = 0;
    if (refused >= kThreadFails)
        scheduler::failNextThread(true);
    else if (refused > 0)
        allocations::failOne(refused - 1U);
    const int exempt = std::exchange(allocations::exemptions, 0);
    status_ = kThrew;
    try {
        status_ = function();
    } catch (const std::exception &) { // judge() says whether it may
    }
    allocations::exemptions = exempt;
    if (fact_ != nullptr)
        fact_->end(change_, status_ == 0);
    if (refused == 0)
        return status_;
    const bool isMet =
        refused >= kThreadFails ? !scheduler::failNextThread(false) : allocations::restore();
    if (kOrders && isMet)
        world_.starvedAt_ = tick();
    world_.isStarving_ = false;
    return status_;
}

Call &Call::check(bool canPass, bool canFail, int32_t status) {
    if (isReached_ && canFail)
        statuses_.insert(status);
    isReached_ = isReached_ && canPass;
    return *this;
}

Call &Call::initialized() {
    return check(world_.initialized_, true, VEXA_USB_STATUS_NOT_INITIALIZED);
}

Call &Call::onHandle(bool valid) {
    return initialized().check(handle_->device != nullptr && valid,
                               VEXA_USB_STATUS_INVALID_PARAMETERS);
}

Call &Call::ready() {
    return check(true, world_.changing_.canBe(true, since) || world_.isPartial_,
                 VEXA_USB_STATUS_NOT_INITIALIZED);
}

Call &Call::present() {
    const bool mayHaveLeft = handle_->removedAt > 0 || handle_->place->leftAt > world_.restedAt_ ||
                             world_.finiAt_ > handle_->openedAt;
    return check(handle_->removedAt == 0 || handle_->removedAt > since, mayHaveLeft || !kOrders,
                 VEXA_USB_STATUS_DEVICE_REMOVED);
}

Call &Call::connected() {
    const bool mayBeClosed = handle_->mayBeLoopless || world_.finiAt_ > handle_->openedAt;
    return check(handle_->disconnectedAt == 0 || handle_->disconnectedAt > since,
                 mayBeClosed || !kOrders, VEXA_USB_STATUS_UNKNOWN);
}

Call &Call::onStream(bool valid) {
    onHandle(valid).check(handle_->place->streams, VEXA_USB_STATUS_NOT_SUPPORTED);
    return check(handle_->stream, true, VEXA_USB_STATUS_STREAM_BUFFER_NOT_ACTIVE).present();
}

Call &Call::canTransfer(uint8_t endpoint) {
    connected().refused({VEXA_USB_STATUS_UNKNOWN, VEXA_USB_STATUS_NO_MEMORY});
    starved({VEXA_USB_STATUS_NO_MEMORY});
    return check(packetSizeOf(endpoint) > 0, VEXA_USB_STATUS_UNKNOWN);
}

Call &Call::refused(std::initializer_list<int32_t> statuses) {
    if (isReached_ && (!kOrders || fake::failuresMet != failures_))
        statuses_.insert(statuses);
    return *this;
}

Call &Call::starved(std::initializer_list<int32_t> statuses) {
    if (isReached_ && (!kOrders || world_.isStarved(since)))
        statuses_.insert(statuses);
    return *this;
}

int32_t Call::judge(const char *name, std::initializer_list<int32_t> answers) {
    if (isReached_)
        statuses_.insert(answers);
    if (kOrders && statuses_.count(status_) == 0) {
        std::printf("%s may answer", name);
        for (const int32_t status : statuses_)
            std::printf(" %d", status);
        std::printf("\n");
    }
    require(statuses_.count(status_) != 0, "answers what it may not", status_);
    return status_;
}

void World::init(const Step & /*op*/) {
    const bool mayBeFirst = initialized_.canBe(false);
    if (mayBeFirst)
        changing_.change(1);
    const size_t failures = fake::failuresMet;
    Call call(*this, nullptr, &initialized_, 1);
    call.make([&]() { // counted even then
        try {
            vexa_usb_init();
        } catch (const std::exception &) {
            require(isStarved(call.since), "init throws");
        }
        return 0;
    });
    if (kOrders)
        isPartial_ = isPartial_ || fake::failuresMet != failures || isStarved(call.since);
    if (mayBeFirst)
        changing_.change(-1);
    ++uses_;
}

void World::fini(const Step & /*op*/) {
    int uses = uses_;
    while (uses > 0 && !uses_.compare_exchange_weak(uses, uses - 1)) {
    }
    if (uses <= 0)
        return;
    Call call(*this, nullptr, &initialized_, -1);
    const bool mayBeLast = initialized_.canBe(false);
    if (mayBeLast)
        changing_.change(1);
    if (mayBeLast && kOrders) {
        finiAt_ = tick();
        hasEnded_ = true;
        registered_ = 0;
        for (Place &place : places_)
            place.isKnown = false;
        for (Registration &registration : registrations_)
            registration.isDoubtful = true; // it may be of the list that ends
    }
    call.make([]() { return vexa_usb_fini(), 0; });
    if (mayBeLast)
        changing_.change(-1);
    if (!mayBeLast || !kOrders)
        return;
    finiAt_ = tick();
    isLoopOver_ = isLoopOver_ || (initialized_.is(false) && !isPartial_);
    for (Registration &registration : registrations_)
        registration.isActive = registration.isActive && !initialized_.is(false);
}

void World::freeList(List list) {
    Call call(*this);
    call.make([=]() { return vexa_usb_free_device_list(list); });
    call.initialized().check(list != nullptr, VEXA_USB_STATUS_INVALID_PARAMETERS);
    if (call.judge("free_device_list", {0}) == VEXA_USB_STATUS_NOT_INITIALIZED)
        unfreed_[unfreedCount_++ % unfreed_.size()] = list;
}

void World::getList(const Step &op) {
    List list = nullptr;
    uint64_t count = UINT64_MAX;
    const bool valid = op.b < 240;
    Call call(*this);
    call.make([&]() {
        return vexa_usb_get_device_list(valid ? &list : nullptr, op.b % 2 != 0 ? nullptr : &count);
    });
    call.initialized().check(valid, VEXA_USB_STATUS_INVALID_PARAMETERS).ready().starved({kThrew});
    const int32_t status = call.judge("get_device_list", {0});
    size_t i = 0;
    for (; status == 0 && list[i] != nullptr; ++i) {
        Place *const place = placeOf(list[i]->product_id);
        require(place != nullptr, "an unknown device in a list", list[i]->product_id);
        if (kOrders)
            place->see(list[i]->id);
    }
    require(status != 0 || op.b % 2 != 0 || count == i, "the length of a list");
    if (list != nullptr)
        list = lists_[op.a % lists_.size()].exchange(list);
    if (list != nullptr)
        freeList(list);
}

void World::dropList(const Step &op) {
    freeList(lists_[op.a % lists_.size()].exchange(nullptr));
}

// What needs no init.
void World::tell(const Step &op) {
    const bool isStatus = op.a >= 114 && op.a < 130;
    require((*vexa_usb_get_status_str(op.a - 128) != 0) == isStatus, "the text of a status");
    require(vexa_usb_get_version()->minor == 8, "the version");
}

void World::update(const Step & /*op*/) {
    const size_t failures = fake::failuresMet;
    Call call(*this);
    call.make([]() { return vexa_usb_update_device_list(); });
    call.initialized().ready().starved({kThrew});
    const int32_t status = call.judge("update_device_list", {0});
    const bool isPartial = status == kThrew; // some may be listed
    if (!kOrders || status == VEXA_USB_STATUS_NOT_INITIALIZED || fake::failuresMet != failures)
        return;
    for (Place &place : places_) {
        // A departure that is still on its way takes back what an update finds.
        const bool isSteady = place.changedAt < call.since && place.leftAt <= restedAt_ &&
                              initialized_.is(true) && finiAt_ < call.since;
        place.isKnown = place.isKnown && isSteady && !isPartial;
        if (!isSteady || !place.isAttached || !place.isSupported)
            continue;
        place.isSeen = place.isSeen && place.isListed;
        place.isListed = true;
    }
}

void World::open(const Step &op) {
    const _vexa_usb_device_list_item *item = op.item;
    Slot &slot = slots_[op.a % slots_.size()];
    if (!slot.enterAlone(0))
        return;
    auto &stored = lists_[op.b % lists_.size()];
    List list = stored.exchange(nullptr);
    for (int i = 0, left = op.b / 2 % 8; !item && list && list[i]; ++i, --left)
        item = left == 0 ? list[i] : item;
    Place *const place = item == nullptr ? nullptr : placeOf(item->product_id);
    const bool isFree = place == nullptr || !place->isClaimed.exchange(true);
    const bool isOpened = slot.handle != nullptr || handleCount_ >= handles_.size();
    if (isFree && !isOpened) {
        Handle &handle = handles_[handleCount_++];
        handle.world = this;
        handle.place = place;
        handle.entry = item == nullptr ? 0 : item->id;
        slot.handle = openEntry(op, item, handle) == 0 ? &handle : nullptr;
    }
    if (isFree && place != nullptr && (isOpened || slot.handle == nullptr))
        place->isClaimed = false;
    slot.users += Slot::kAlone;
    if (list != nullptr && (list = stored.exchange(list)) != nullptr)
        freeList(list);
}

int32_t World::openEntry(const Step &op, const _vexa_usb_device_list_item *item, Handle &handle) {
    const Place *const place = handle.place;
    const bool valid = place != nullptr && op.c < 240;
    const bool isStale = valid && handle.entry < place->entry;
    const bool wasListed = valid && place->isListed && place->isKnown && place->isSeen;
    Call call(*this);
    handle.openedAt = call.since;
    call.make([&]() {
        const bool isOdd = op.c % 2 != 0; // one of the two is missing
        return vexa_usb_open(item, op.c < 240 || isOdd ? onEvent : nullptr, &handle,
                             op.c < 240 || !isOdd ? &handle.device : nullptr);
    });
    const bool hasChanged = !kOrders || (valid && place->changedAt > call.since);
    const bool mayFail = !wasListed || !place->isListed || hasChanged || !place->isAttached ||
                         finiAt_ > call.since || isPartial_;
    const bool mayBeThere = !isStale && valid && (place->isAttached || hasChanged);
    call.initialized().check(valid, VEXA_USB_STATUS_INVALID_PARAMETERS).ready();
    call.check(mayBeThere, isStale || mayFail, VEXA_USB_STATUS_UNKNOWN);
    call.refused({VEXA_USB_STATUS_UNKNOWN, VEXA_USB_STATUS_TIMEOUT});
    const int32_t status = call.starved({VEXA_USB_STATUS_UNKNOWN}).judge("open", {0});
    require(status == 0 || handle.device == nullptr, "a handle from a failed open");
    handle.hasClaim = status == 0;
    if (kOrders) {
        handle.mayBeLoopless = hasEnded_;
        handle.isLoopless = isLoopOver_;
        handle.isOpen = status == 0;
    }
    return status;
}

void World::close(const Step &op) {
    Slot &slot = slots_[op.a % slots_.size()];
    Handle *const handle = slot.handle;
    if (!slot.enterAlone(handle != nullptr && handle == op.busy ? 1 : 0))
        return;
    if (handle != nullptr && slot.handle == handle) {
        Call call(*this, handle);
        call.make([=]() { return vexa_usb_close(handle->device); });
        if (call.onHandle().judge("close", {0}) == 0) {
            slot.handle = nullptr;
            if (std::exchange(handle->hasClaim, false))
                handle->place->isClaimed = false;
            handle->closedAt = tick();
            const auto *const begin = static_cast<void *>(handle);
            for (const auto &one : fake::inFlight())
                require(one.owner < begin || one.owner >= handle + 1, "in flight after the close");
        }
    }
    slot.users += Slot::kAlone;
}

void World::subscribe(const Step &op) {
    const size_t number = registrationCount_++;
    if (number >= registrations_.size())
        return;
    Registration &registration = registrations_[number];
    registration.world = this;
    const bool valid = op.b < 240;
    registration.isActive = valid;
    Call call(*this);
    ++registered_;
    const int32_t status = call.make([&]() {
        return vexa_usb_register_device_list_event_callback(
            valid || op.b % 2 != 0 ? onChange : nullptr, &registration,
            valid || op.b % 2 == 0 ? &registration.id : nullptr);
    });
    call.initialized().check(valid, VEXA_USB_STATUS_INVALID_PARAMETERS).ready().starved({kThrew});
    call.judge("register_device_list_event_callback", {0});
    if (!kOrders)
        return;
    registration.isActive = status == 0 && !registration.isCancelled;
    registration.isDoubtful = finiAt_ > call.since || changing_.canBe(true, call.since);
    require(!registration.isActive || registration.isDoubtful || registration.id < registered_,
            "a callback's identifier");
}

void World::cancel(const Step &op) {
    Registration &registration = registrations_[op.a % registrations_.size()];
    const bool wasActive =
        kOrders && registration.isActive && registration.id != Registration::kNone;
    const uint32_t id = wasActive ? registration.id : kOrders ? Registration::kNone + op.b : op.a;
    Call call(*this);
    if (kOrders)
        registration.isExact = false;
    call.make([&]() { return vexa_usb_deregister_device_list_event_callback(id); });
    if (call.initialized().ready().judge("deregister_...", {0}) == 0 && wasActive) {
        registration.isActive = false;
        registration.isCancelled = true; // perhaps before the registration has returned
    }
    // One of a list that has ended has the number of another one's.
    const bool isOfEither = kOrders && registration.isDoubtful;
    for (Registration &other : registrations_) {
        if (isOfEither && other.id == id)
            other.isDoubtful = true;
    }
}

// What tells something, and changes nothing.
void World::ask(const Step &op) {
    Handle &on = *op.on;
    const bool valid = op.b < 240;
    Call call(*this, &on);
    // With a null pointer instead of the value where that is to be refused.
    const auto query = [&](auto function, auto &value, auto... more) -> Call & {
        call.make([&]() { return function(on.device, valid ? &value : nullptr, more...); });
        return call.onHandle(valid);
    };
    if (op.what() == 11) {
        _vexa_usb_version version{};
        query(vexa_usb_get_kernel_driver_version, version).present();
        call.judge("get_kernel_driver_version", {VEXA_USB_STATUS_NOT_SUPPORTED});
    } else if (op.what() == 12) {
        _vexa_usb_device_descriptor record{};
        record.bMaxPacketSize0 = op.c;
        query(vexa_usb_get_device_descriptor, record, op.b);
        call.check(op.b >= 16, VEXA_USB_STATUS_INVALID_PARAMETERS).present();
        require(call.judge("get_device_descriptor", {0}) != 0 ||
                    (record.bcdUSB == 0x0123 && record.bMaxPacketSize0 == op.c &&
                     record.bNumConfigurations == 0x88),
                "a descriptor");
    } else if (op.what() == 13 && (on.device != nullptr || !valid)) { // needs no init
        const uint8_t endpoint = kEndpoints[op.c % kEndpoints.size()];
        const bool exists = endpoint != 0x8F && endpoint != 0;
        uint16_t size = 0;
        call.make([&]() {
            return vexa_usb_get_max_packet_size(on.device, endpoint, valid ? &size : nullptr);
        });
        call.check(valid, VEXA_USB_STATUS_INVALID_PARAMETERS).present().connected();
        call.refused({VEXA_USB_STATUS_UNKNOWN, VEXA_USB_STATUS_ENDPOINT_NOT_SUPPORTED});
        call.check(exists, VEXA_USB_STATUS_ENDPOINT_NOT_SUPPORTED);
        require(call.judge("get_max_packet_size", {0}) != 0 || size == packetSizeOf(endpoint),
                "a packet size", size);
    } else if (op.what() >= 25) {
        uint64_t value = 0;
        query(op.what() == 25 ? vexa_usb_data_stream_memory_size_max
                              : vexa_usb_data_stream_rate_max,
              value);
        call.check(on.place->streams, VEXA_USB_STATUS_NOT_SUPPORTED).present();
        require(call.judge("data_stream_..._max", {0}) != 0 || value > 0, "a limit");
    }
}

void World::transfer(const Step &op) {
    Handle &on = *op.on;
    constexpr std::array<uint64_t, 8> kLengths{0, 1, 6, 64, 65535, 65536, 524289, 1048576};
    const uint64_t length = kLengths[op.b % kLengths.size()];
    const uint8_t endpoint = kEndpoints[op.b / 8 % kEndpoints.size()];
    const auto buffer = std::make_unique_for_overwrite<uint8_t[]>(length);
    uint8_t *const data = op.b >= 240 ? nullptr : buffer.get();
    const bool isControl = op.what() == 14;
    const bool isRead = op.what() % 2 != 0;
    Wire wire(op.c, on.place->isAttached);
    Call call(*this, &on);
    call.make([&]() {
        constexpr std::array kReads{vexa_usb_interrupt_read, vexa_usb_bulk_read};
        constexpr std::array kWrites{vexa_usb_interrupt_write, vexa_usb_bulk_write};
        const size_t kind = op.what() / 17;
        if (isControl)
            return vexa_usb_control_transfer(on.device, op.b & 1, op.b >> 1 & 3, op.b >> 3 & 3,
                                             op.c, op.b, op.c, buffer.get(), length);
        return isRead ? kReads[kind](on.device, endpoint, data, length)
                      : kWrites[kind](on.device, endpoint, data, length);
    });
    call.onHandle(isControl || (data != nullptr && length > 0));
    call.check(isControl || (endpoint >= 0x80) == isRead,
               VEXA_USB_STATUS_INVALID_ENDPOINT_DIRECTION);
    call.present().check(!isControl || length < 65536, VEXA_USB_STATUS_UNKNOWN).connected();
    const int32_t status = call.judge("a transfer", {wire.firstStatus()});
    uint64_t asked = 0;
    for (const auto &one : wire.transfers)
        asked += static_cast<uint64_t>(one.asked);
    require(status != 0 || asked == length, "not all was transferred");
    require(wire.transfers.size() <= std::max<size_t>(1, (length + 524287) / 524288),
            "more pieces than needed");
}

void World::enable(const Step &op) {
    Handle &on = *op.on;
    const uint8_t endpoint = kEndpoints[op.b % kEndpoints.size()];
    fake::allocatingFor = &on.bytes;
    Call call(*this, &on, &on.pipe, 1);
    call.make([&]() { return vexa_usb_event_pipe_enable(on.device, endpoint); });
    call.onHandle().check(endpoint >= 0x80, VEXA_USB_STATUS_INVALID_ENDPOINT_DIRECTION);
    call.check(on.pipe, false, VEXA_USB_STATUS_EVENT_PIPE_ACTIVE).present();
    if (call.canTransfer(endpoint).judge("event_pipe_enable", {0}) == 0 && kOrders)
        on.refusals = fake::refusals(&on.bytes);
}

void World::disable(const Step &op) {
    Handle &on = *op.on;
    Call call(*this, &on);
    call.make([&]() { return vexa_usb_event_pipe_disable(on.device); });
    call.onHandle().check(on.pipe, true, VEXA_USB_STATUS_EVENT_PIPE_NOT_ACTIVE).present();
    if (call.judge("event_pipe_disable", {0}) == 0 && kOrders)
        on.pipeEnded = true;
}

void World::start(const Step &op) {
    Handle &on = *op.on;
    constexpr std::array<uint64_t, 8> kSizes{512, 1, 100, 1024, 1000, 600000, 0, UINT64_MAX};
    constexpr std::array<uint64_t, 8> kCounts{4, 3, 8, 1, 16, 5, 0, UINT64_MAX};
    const uint8_t endpoint = kEndpoints[(op.b >> 6U) + 1U];
    const uint64_t size = kSizes[op.b & 7U];
    const uint64_t count = kCounts[op.b >> 3U & 7U];
    const size_t number = on.runCount++;
    if (number >= on.runs.size()) {
        --on.runCount;
        return;
    }
    Flow &run = on.runs[number];
    run.bufferSize = size;
    run.bufferCount = count;
    run.isStrict = std::string_view(std::getenv("VEXA_USB_STREAM")) == "strict";
    if (kOrders)
        on.isLoose = on.isLoose || on.stream.isChanging();
    fake::allocatingFor = &run;
    Call call(*this, &on, &on.stream, 1);
    call.make([&]() { return vexa_usb_data_stream_start(on.device, endpoint, size, count); });
    call.onHandle(size != 0 && count != 0);
    call.check(endpoint >= 0x80, VEXA_USB_STATUS_INVALID_ENDPOINT_DIRECTION);
    call.check(on.place->streams, VEXA_USB_STATUS_NOT_SUPPORTED);
    call.check(on.stream, false, VEXA_USB_STATUS_STREAM_BUFFER_ACTIVE).present();
    call.canTransfer(endpoint);
    call.check(size != UINT64_MAX && count != UINT64_MAX, VEXA_USB_STATUS_NO_MEMORY);
    if (call.judge("data_stream_start", {0}) != 0 && kOrders)
        run.isDead = true;
}

void World::stop(const Step &op) {
    Handle &on = *op.on;
    if (kOrders)
        on.isLoose = on.isLoose || on.stream.isChanging();
    const auto isInFlight = [run = &on.latest()]() { // others may start the next one meanwhile
        return std::ranges::count(fake::inFlight(), run, &fake::InFlight::owner) != 0;
    };
    const bool abandons = on.isLoopless && isInFlight();
    Call call(*this, &on, &on.stream, -1);
    call.make([&]() { return vexa_usb_data_stream_stop(on.device); });
    if (call.onStream().judge("data_stream_stop", {0}) != 0 || !kOrders)
        return;
    on.disconnectedAt = abandons ? tick() : 0;
    on.data = nullptr;
    on.locked.clear();
    require(on.isLoose || !isInFlight(), "in flight after the stop");
}

void World::lock(const Step &op) {
    Handle &on = *op.on;
    Flow &run = on.latest();
    uint8_t *data = nullptr;
    uint64_t size = 0;
    const bool valid = op.b < 240;
    const bool isDue = kOrders && run.heard > run.locks;
    const bool wasAlone = !on.locked.isChanging();
    Call call(*this, &on, &on.locked, 1);
    call.make([&]() {
        return vexa_usb_data_stream_buffer_lock(on.device, valid || op.b % 2 != 0 ? &data : nullptr,
                                                valid || op.b % 2 == 0 ? &size : nullptr);
    });
    on.noteOverlap(call.since);
    call.onStream(valid).check(on.isLoose || on.locked.canBe(false, call.since),
                               on.isLoose || on.locked.canBe(true, call.since),
                               VEXA_USB_STATUS_DATA_STREAM_BUFFER_EMPTY);
    // The last fini closes full buffers before it marks the device removed.
    const bool mayBeClosed = finiAt_ > std::max(on.openedAt, restedAt_);
    call.check(true, !isDue || on.isLoose || mayBeClosed, VEXA_USB_STATUS_DATA_STREAM_BUFFER_EMPTY);
    if (call.judge("data_stream_buffer_lock", {0}) != 0 || !kOrders)
        return;
    const bool isAlone = wasAlone && !on.locked.isChanging() && !on.isLoose;
    run.outOfStep = run.outOfStep || !isDue || !isAlone;
    require(size == run.bufferSize || on.isLoose, "the size of a buffer");
    if (!run.outOfStep)
        run.checkBuffer(run.locks, data);
    on.data = run.outOfStep ? nullptr : data;
    ++run.locks;
}

void World::unlock(const Step &op) {
    Handle &on = *op.on;
    if (on.data != nullptr && on.stream.is(true) && on.locked.is(true))
        on.latest().checkBuffer(on.latest().locks - 1, on.data); // as it was
    Call call(*this, &on, &on.locked, -1);
    call.make([&]() { return vexa_usb_data_stream_buffer_unlock(on.device); });
    on.noteOverlap(call.since);
    call.onStream().check(on.isLoose || on.locked.canBe(true, call.since),
                          on.isLoose || on.locked.canBe(false, call.since),
                          VEXA_USB_STATUS_UNKNOWN);
    call.judge("data_stream_buffer_unlock", {0});
}

void World::load(const Step &op) {
    Handle &on = *op.on;
    const Image image(op.what(), op.b);
    const uint8_t *const data = image.bytes.empty() ? nullptr : image.bytes.data();
    const uint64_t size = op.b == 254 ? 0 : image.bytes.size();
    Wire wire(op.c, on.place->isAttached);
    Call call(*this, &on);
    call.make([&]() {
        constexpr std::array kLoads{vexa_usb_imx7_load_firmware_spl,
                                    vexa_usb_imx7_load_firmware_uboot,
                                    vexa_usb_lpc4370_load_firmware};
        if (op.what() == 28)
            return vexa_usb_fx2_load_firmware(on.device, data, size);
        if (op.what() < 30)
            return (op.what() == 27 ? vexa_usb_fx2_reset : vexa_usb_fx2_renumerate)(on.device);
        if (op.what() == 30)
            return vexa_usb_fx3_load_firmware(on.device, reinterpret_cast<const uint32_t *>(data),
                                              size / sizeof(uint32_t));
        auto *const progress = op.b % 2 != 0 ? nullptr : onProgress;
        return op.what() == 31 ? vexa_usb_dfu_download(on.device, data, size, progress, &on)
                               : kLoads[op.what() - 32U](on.device, data, size);
    });
    const bool mayFail =
        !kOrders || on.closedAt > call.since || on.mayBeLoopless || finiAt_ > on.openedAt;
    call.onHandle(op.what() <= 29 || (data != nullptr && size > 0));
    if (op.what() != 34)
        call.present().check(true, mayFail, VEXA_USB_STATUS_UNKNOWN);
    call.check(true, mayFail, VEXA_USB_STATUS_SUCCESS); // what does not matter may have failed
    for (const int32_t status :
         std::initializer_list<int32_t>{kThrew, VEXA_USB_STATUS_UNKNOWN,
                                        VEXA_USB_STATUS_INVALID_PARAMETERS, wire.firstStatus()})
        call.check(true, image.isSpoiled, status);
    call.starved({kThrew, VEXA_USB_STATUS_UNKNOWN}).judge("a loader", {image.expected(wire)});
}

void World::plug(const Step &op) {
    Place &place = places_[op.a % places_.size()];
    if (op.what() != 35)
        change(place, false, op.b < 128 || op.what() == 37);
    if (op.what() != 36)
        change(place, true, op.b < 128 || op.what() == 37);
}

// The device comes, or leaves, in which case its transfers end.
void World::change(Place &place, bool attach, bool isNoticed) {
    const vexausb::MutexLock alone(bus_);
    if (place.isAttached.exchange(attach) == attach)
        return;
    isNoticed = isNoticed && uses_ > 0 && !isPartial_;
    if (kOrders) {
        const bool follows = isNoticed && followsBus();
        place.changedAt = UINT64_MAX; // it is changing
        place.leftAt = isNoticed && !attach ? tick() : place.leftAt;
        place.isSeen = place.isSeen && (!attach || place.isListed);
        place.isListed = follows ? attach && (place.isSupported || place.isListed) : place.isListed;
        place.isKnown = place.isKnown && (follows || !isNoticed);
    }
    (attach ? fake::reattach : fake::detach)(place.device);
    if (kOrders)
        place.changedAt = tick();
    const auto fail = [](Flow &flow) {
        const auto end = [&](const fake::InFlight &one) {
            flow.bring(one.buffer, one.length, 0, false);
            return fake::End{LIBUSB_TRANSFER_NO_DEVICE, 0};
        };
        while (fake::completeOf(&flow, end)) {
        }
    };
    for (const Slot &slot : slots_) {
        Handle *const handle = slot.handle;
        if (attach || handle == nullptr || handle->place != &place)
            continue;
        fail(handle->bytes);
        std::for_each(handle->runs.begin(), handle->runs.end(), fail);
    }
    if (isNoticed)
        (attach ? fake::notifyArrival : fake::notifyDeparture)(place.device);
}

void World::complete(const Step &op) {
    const auto flying = fake::inFlight();
    if (flying.empty())
        return;
    auto &flow = *static_cast<Flow *>(flying[op.a % flying.size()].owner);
    constexpr std::array kErrors{LIBUSB_TRANSFER_ERROR, LIBUSB_TRANSFER_STALL,
                                 LIBUSB_TRANSFER_OVERFLOW, LIBUSB_TRANSFER_TIMED_OUT};
    const bool completes = op.b < 240;
    for (unsigned i = 0; i <= op.b % 8U; ++i)
        fake::completeOf(&flow, [&](const fake::InFlight &one) {
            const int actual = op.c == 0 ? one.length : std::min<int>(op.c - 1, one.length);
            flow.bring(one.buffer, one.length, actual, completes);
            return fake::End{completes ? LIBUSB_TRANSFER_COMPLETED : kErrors[op.b % 4U], actual};
        });
}

void World::disturb(const Step &op) {
    constexpr std::array kFunctions{"libusb_submit_transfer",
                                    "libusb_get_max_packet_size",
                                    "libusb_alloc_transfer",
                                    "libusb_open",
                                    "libusb_claim_interface",
                                    "libusb_get_device_list",
                                    "libusb_init",
                                    "libusb_hotplug_register_callback",
                                    "libusb_detach_kernel_driver"};
    constexpr std::array kErrors{LIBUSB_ERROR_IO,   LIBUSB_ERROR_TIMEOUT, LIBUSB_ERROR_NO_MEM,
                                 LIBUSB_ERROR_BUSY, LIBUSB_ERROR_ACCESS,  LIBUSB_ERROR_NO_DEVICE};
    if (op.what() == 39 && op.a % 16U < kFunctions.size()) {
        fake::failCall(kFunctions[op.a % 16U], kErrors[op.b % kErrors.size()], op.c % 8);
    } else if (op.what() == 39) {
        fake::failCall("libusb_kernel_driver_active", 1);
    } else if (op.what() == 40) {
        starveNext = op.a;
    } else if (op.what() == 42) { // for longer than the library waits for a device
        mayAbandon_ = true;
        fake::holdEvents(true);
        std::this_thread::sleep_for(std::chrono::milliseconds(kOrders ? op.a * 4 : 1));
        fake::holdEvents(false);
    } else {
        fake::limitTransfers(op.a % 2 != 0 ? "16" : "256");
    }
}

void World::perform(const Operation &op, const _vexa_usb_device_list_item *item, Handle *busy) {
    using W = World;
    constexpr std::array kActions{
        &W::init,     &W::fini,      &W::tell,     &W::tell,     &W::getList,  &W::dropList,
        &W::update,   &W::subscribe, &W::cancel,   &W::open,     &W::close,    &W::ask,
        &W::ask,      &W::ask,       &W::transfer, &W::transfer, &W::transfer, &W::transfer,
        &W::transfer, &W::enable,    &W::disable,  &W::start,    &W::stop,     &W::lock,
        &W::unlock,   &W::ask,       &W::ask,      &W::load,     &W::load,     &W::load,
        &W::load,     &W::load,      &W::load,     &W::load,     &W::load,     &W::plug,
        &W::plug,     &W::plug,      &W::complete, &W::disturb,  &W::disturb,  &W::disturb,
        &W::disturb,  &W::disturb};
    const uint8_t what = op.what();
    const size_t action = what >= 59                ? 24U
                          : what >= 54              ? 23U
                          : what >= kActions.size() ? 38U
                                                    : what;
    Handle nobody;
    nobody.place = places_.data();
    const bool needsHandle = action >= 11 && action <= 34 && op.a % 4U != 3;
    Slot &slot = slots_[op.a % slots_.size()];
    if (needsHandle && !slot.enter())
        return;
    Handle *const handle = needsHandle ? slot.handle.load() : nullptr;
    (this->*kActions[action])({op, handle == nullptr ? &nobody : handle, item, busy});
    if (needsHandle)
        --slot.users;
}

} // namespace calls
