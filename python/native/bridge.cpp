#include "bridge.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <map>
#include <memory>
#include <new>
#include <string>
#include <system_error>
#include <utility>

#include "guard.h"
#include "mutex.h"

namespace bridge {

using vexausb::Condition;
using vexausb::Mutex;
using vexausb::MutexLock;

// A file descriptor that is readable while it is set.  Whoever uses it holds the mutex of what it
// tells about; waiting needs none.
class Signal {
public:
    Signal() : descriptor_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
        if (descriptor_ < 0)
            throw std::system_error(errno, std::generic_category(), "eventfd");
    }
    ~Signal() { close(descriptor_); }
    Signal(const Signal &) = delete;
    Signal &operator=(const Signal &) = delete;

    void set() {
        if (!isSet_)
            isSet_ = eventfd_write(descriptor_, 1) == 0;
    }
    void clear() {
        eventfd_t count = 0;
        if (isSet_ && eventfd_read(descriptor_, &count) == 0)
            isSet_ = false;
    }
    int descriptor() const { return descriptor_; }

private:
    const int descriptor_;
    bool isSet_ = false;
};

// What Python has yet to take.  Its owner guards it.
template <typename Item>
class Queue {
public:
    // On the library's threads, which an exception would end.
    void post(const Item &item) noexcept {
        try {
            items_.push_back(item);
        } catch (const std::bad_alloc &) {
            hasLost_ = true;
        }
    }
    // kBridgeEmpty when there is none; NO_MEMORY once, when it has been emptied, if some were lost.
    int32_t take(Item &item) {
        if (items_.empty())
            return std::exchange(hasLost_, false) ? int32_t{VEXA_USB_STATUS_NO_MEMORY}
                                                  : int32_t{kBridgeEmpty};
        item = items_.front();
        items_.pop_front();
        return VEXA_USB_STATUS_SUCCESS;
    }
    bool isEmpty() const { return items_.empty() && !hasLost_; }

private:
    std::deque<Item> items_;
    bool hasLost_ = false;
};

// What Python knows by a number and can wait for.
class Source {
public:
    virtual ~Source() = default;
    // Nothing comes from it any more.
    virtual void end() = 0;

    // Null for what cannot be waited for.  Only for the descriptor, which never changes.
    const Signal *signal(int32_t what) const NO_THREAD_SAFETY_ANALYSIS {
        const auto index = static_cast<size_t>(what);
        return index < signals_.size() ? &signals_[index] : nullptr;
    }

protected:
    Mutex events_; // the innermost
    std::array<Signal, 3> signals_ GUARDED_BY(events_);
};

// The sources by their numbers, which are not used again.  Never destroyed: the library's threads
// may come after main has returned.
class Sources {
public:
    uint64_t add(const std::shared_ptr<Source> &source) EXCLUDES(mutex_) {
        const MutexLock lock(mutex_);
        sources_.emplace(++last_, source);
        return last_;
    }
    template <typename Kind>
    std::shared_ptr<Kind> find(uint64_t id) EXCLUDES(mutex_) {
        const MutexLock lock(mutex_);
        const auto found = sources_.find(id);
        return found == sources_.end() ? nullptr : std::dynamic_pointer_cast<Kind>(found->second);
    }
    void remove(uint64_t id) EXCLUDES(mutex_) {
        std::shared_ptr<Source> removed; // ends without the mutex
        const MutexLock lock(mutex_);
        const auto found = sources_.find(id);
        if (found == sources_.end())
            return;
        removed = std::move(found->second);
        sources_.erase(found);
    }

private:
    Mutex mutex_;
    std::map<uint64_t, std::shared_ptr<Source>> sources_ GUARDED_BY(mutex_);
    uint64_t last_ GUARDED_BY(mutex_) = 0;
};

Sources &sources() {
    static Sources &all = *new Sources;
    return all;
}

void *asData(uint64_t id) {
    return reinterpret_cast<void *>(id); // NOLINT(performance-no-int-to-ptr): only ever cast back
}

std::chrono::steady_clock::time_point after(uint32_t milliseconds) {
    return std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
}

// An opened device: its handle with the calls in progress, its stream with the views of the ring,
// and its events.  The handle is closed by whoever is the last to need it.
class Device final : public Source, public std::enable_shared_from_this<Device> {
public:
    int32_t open(uint64_t id, const _vexa_usb_device_list_item *record) EXCLUDES(mutex_) {
        _vexa_usb_device *opened = nullptr;
        const int32_t status =
            shielded([&]() { return vexa_usb_open(record, onEvent, asData(id), &opened); });
        const MutexLock lock(mutex_);
        handle_ = opened;
        return status;
    }

    _vexa_usb_device *enter() EXCLUDES(mutex_) {
        const MutexLock lock(mutex_);
        if (handle_ == nullptr || closing_)
            return nullptr;
        ++calls_;
        return handle_;
    }
    void leave() EXCLUDES(mutex_) {
        const MutexLock lock(mutex_);
        --calls_;
        settle();
        settled_.notifyAll();
    }

    void end() override { close(0); }
    int32_t close(uint32_t timeoutMs) EXCLUDES(mutex_) {
        const MutexLock lock(mutex_);
        closing_ = true;
        wakeAll();
        forgetUnviewed();
        settle();
        const auto mayReturn = [this]() REQUIRES(mutex_) {
            return !leaving_ && (handle_ == nullptr || (calls_ == 0 && !stopping_));
        };
        if (!settled_.waitUntil(mutex_, after(timeoutMs), mayReturn))
            return kBridgeBusy;
        if (handle_ != nullptr)
            return kBridgeViewed;
        return VEXA_USB_STATUS_SUCCESS;
    }

    int32_t streamStart(uint8_t endpoint, uint64_t size, uint64_t count, bool strict)
        EXCLUDES(mutex_);
    int32_t streamStop() EXCLUDES(mutex_);
    int32_t streamNext(uint8_t **data, uint64_t *size) EXCLUDES(mutex_);
    void streamViewed() EXCLUDES(mutex_) {
        const MutexLock lock(mutex_);
        lockedIsViewed_ = true;
    }
    void viewGone() EXCLUDES(mutex_) {
        const MutexLock lock(mutex_);
        --views_;
        settle();
    }

    int32_t download(_vexa_usb_device *handle, const uint8_t *data, uint64_t size);
    double takeProgress() EXCLUDES(events_) {
        const MutexLock lock(events_);
        signals_[kBridgeLoad].clear();
        return progress_;
    }
    void tellProgress(double progress) EXCLUDES(events_) {
        const MutexLock lock(events_);
        progress_ = progress;
        signals_[kBridgeLoad].set();
    }

    int64_t takeEvent() EXCLUDES(events_);
    bool isRemoved(uint32_t timeoutMs) EXCLUDES(events_) {
        const MutexLock lock(events_);
        return removal_.waitUntil(events_, after(timeoutMs),
                                  [this]() REQUIRES(events_) { return removed_; });
    }

private:
    static void onEvent(_vexa_usb_device_event event, void *data);
    static void onProgress(void *data, double progress);
    void post(_vexa_usb_device_event event) EXCLUDES(events_);
    bool isOfStream(_vexa_usb_device_event event) const REQUIRES(events_);
    void wakeAll() EXCLUDES(events_);
    void settle() REQUIRES(mutex_);
    // These two give the mutex up while they are in the library.
    void closeNow() REQUIRES(mutex_);
    void stopNow() REQUIRES(mutex_);
    void forgetUnviewed() REQUIRES(mutex_);
    int32_t lockNext(uint8_t **data, uint64_t *size) REQUIRES(mutex_);
    int32_t giveBack() REQUIRES(mutex_);

    Mutex mutex_; // taken before `events_`, and before those of Views and of the environment
    Condition settled_;
    _vexa_usb_device *handle_ GUARDED_BY(mutex_) = nullptr;
    bool closing_ GUARDED_BY(mutex_) = false; // by Python
    bool leaving_ GUARDED_BY(mutex_) = false; // by some thread, now
    uint64_t calls_ GUARDED_BY(mutex_) = 0;
    bool streaming_ GUARDED_BY(mutex_) = false;    // from the start to the end of the stop
    bool stopWanted_ GUARDED_BY(mutex_) = false;   // by Python
    bool stopping_ GUARDED_BY(mutex_) = false;     // by some thread, now
    uint8_t *locked_ GUARDED_BY(mutex_) = nullptr; // the buffer that Python looks at
    bool lockedIsViewed_ GUARDED_BY(mutex_) = false;
    uint64_t views_ GUARDED_BY(mutex_) = 0;

    Condition removal_;
    Queue<_vexa_usb_device_event> queue_ GUARDED_BY(events_);
    bool ended_ GUARDED_BY(events_) = false;
    bool removed_ GUARDED_BY(events_) = false;
    bool expectsStreamEvents_ GUARDED_BY(events_) = false;
    bool failed_ GUARDED_BY(events_) = false;
    uint64_t full_ GUARDED_BY(events_) = 0;
    // Stopped events; what comes before them is of an earlier stream.
    uint64_t stopsToCome_ GUARDED_BY(events_) = 0;
    double progress_ GUARDED_BY(events_) = 0;
};

// The views of rings, by their addresses; a ring with a view is not freed, so these are unique.
class Views {
public:
    void add(const void *data, const std::shared_ptr<Device> &device) EXCLUDES(mutex_) {
        const MutexLock lock(mutex_);
        views_.emplace(data, device);
    }
    // Null when there is none.
    std::shared_ptr<Device> take(const void *data) EXCLUDES(mutex_) {
        const MutexLock lock(mutex_);
        const auto found = views_.find(data);
        if (found == views_.end())
            return nullptr;
        std::shared_ptr<Device> device = std::move(found->second);
        views_.erase(found);
        return device;
    }

private:
    Mutex mutex_;
    std::multimap<const void *, std::shared_ptr<Device>> views_ GUARDED_BY(mutex_);
};

Views &views() {
    static Views &all = *new Views;
    return all;
}

void Device::onEvent(_vexa_usb_device_event event, void *data) {
    const auto device = sources().find<Device>(reinterpret_cast<uint64_t>(data));
    if (device != nullptr)
        device->post(event);
}

bool Device::isOfStream(_vexa_usb_device_event event) const {
    return (event == VEXA_USB_DEVICE_EVENT_DATA_STREAM_BUFFER_FULL ||
            event == VEXA_USB_DEVICE_EVENT_DATA_STREAM_ERROR) &&
           (expectsStreamEvents_ || stopsToCome_ > 0);
}

void Device::post(_vexa_usb_device_event event) {
    const MutexLock lock(events_);
    if (isOfStream(event)) {
        if (stopsToCome_ > 0 || failed_)
            return;
        if (event == VEXA_USB_DEVICE_EVENT_DATA_STREAM_ERROR)
            failed_ = true;
        else
            ++full_;
        signals_[kBridgeStream].set();
        return;
    }
    if (event == VEXA_USB_DEVICE_EVENT_DATA_STREAM_STOPPED && stopsToCome_ > 0)
        --stopsToCome_;
    if (event == VEXA_USB_DEVICE_EVENT_REMOVED) {
        removed_ = true;
        removal_.notifyAll();
        signals_[kBridgeStream].set();
    }
    queue_.post(event);
    signals_[kBridgeEvents].set();
}

int64_t Device::takeEvent() {
    const MutexLock lock(events_);
    _vexa_usb_device_event event = 0;
    const int32_t status = queue_.take(event);
    if (queue_.isEmpty() && !ended_ && !removed_)
        signals_[kBridgeEvents].clear();
    if (status != kBridgeEmpty)
        return status == VEXA_USB_STATUS_SUCCESS ? int64_t{event} : int64_t{status};
    if (ended_)
        return kBridgeClosed;
    return removed_ ? int64_t{VEXA_USB_STATUS_DEVICE_REMOVED} : int64_t{kBridgeEmpty};
}

void Device::wakeAll() {
    const MutexLock lock(events_);
    ended_ = true;
    signals_[kBridgeStream].set();
    signals_[kBridgeEvents].set();
}

// Does what was asked for and had to wait for others.
void Device::settle() {
    if (handle_ == nullptr || views_ > 0)
        return;
    if (closing_ && calls_ == 0 && !stopping_) {
        closeNow();
    } else if (stopWanted_ && streaming_ && !stopping_) {
        stopNow();
    }
}

void Device::closeNow() {
    _vexa_usb_device *const handle = std::exchange(handle_, nullptr);
    leaving_ = true;
    mutex_.unlock();
    vexa_usb_close(handle);
    mutex_.lock();
    leaving_ = false;
    settled_.notifyAll();
}

void Device::stopNow() {
    stopping_ = true;
    locked_ = nullptr;
    {
        const MutexLock events(events_);
        ++stopsToCome_;
        expectsStreamEvents_ = false;
    }
    _vexa_usb_device *const handle = handle_;
    mutex_.unlock();
    const int32_t status = vexa_usb_data_stream_stop(handle);
    mutex_.lock();
    if (status != VEXA_USB_STATUS_SUCCESS) { // removed: the close frees the stream
        const MutexLock events(events_);
        --stopsToCome_;
    }
    streaming_ = false;
    stopping_ = false;
    settle();
    settled_.notifyAll();
}

int32_t Device::streamStart(uint8_t endpoint, uint64_t size, uint64_t count, bool strict) {
    static Mutex environment; // of this process, which the start reads
    const MutexLock lock(mutex_);
    settled_.wait(mutex_, [this]() REQUIRES(mutex_) { return !stopping_; });
    if (streaming_ && stopWanted_)
        return kBridgeViewed;
    if (streaming_)
        return VEXA_USB_STATUS_STREAM_BUFFER_ACTIVE;
    {
        const MutexLock events(events_);
        if (removed_)
            return VEXA_USB_STATUS_DEVICE_REMOVED;
        expectsStreamEvents_ = true;
        failed_ = false;
        full_ = 0;
        signals_[kBridgeStream].clear();
    }
    int32_t status = VEXA_USB_STATUS_SUCCESS;
    {
        const MutexLock environmentLock(environment);
        const char *const wanted = strict ? "strict" : "default";
        const char *const present = std::getenv("VEXA_USB_STREAM");
        if (present == nullptr || std::string(present) != wanted)
            setenv("VEXA_USB_STREAM", wanted, 1);
        _vexa_usb_device *const handle = handle_;
        status =
            shielded([&]() { return vexa_usb_data_stream_start(handle, endpoint, size, count); });
    }
    streaming_ = status == VEXA_USB_STATUS_SUCCESS;
    stopWanted_ = false;
    if (!streaming_) {
        const MutexLock events(events_);
        expectsStreamEvents_ = false;
    }
    return status;
}

int32_t Device::streamStop() {
    const MutexLock lock(mutex_);
    if (!streaming_)
        return VEXA_USB_STATUS_SUCCESS;
    stopWanted_ = true;
    {
        const MutexLock events(events_);
        signals_[kBridgeStream].set();
    }
    forgetUnviewed();
    settle();
    settled_.wait(mutex_, [this]() REQUIRES(mutex_) { return !stopping_; });
    if (streaming_)
        return kBridgeViewed;
    return VEXA_USB_STATUS_SUCCESS;
}

// Python was interrupted before it had made a view.
void Device::forgetUnviewed() {
    if (locked_ != nullptr && !lockedIsViewed_ && views().take(locked_) != nullptr)
        --views_;
    lockedIsViewed_ = true;
}

int32_t Device::giveBack() {
    if (locked_ == nullptr)
        return VEXA_USB_STATUS_SUCCESS;
    forgetUnviewed();
    locked_ = nullptr;
    return vexa_usb_data_stream_buffer_unlock(handle_);
}

int32_t Device::lockNext(uint8_t **data, uint64_t *size) {
    {
        const MutexLock events(events_);
        if (full_ == 0) {
            if (removed_)
                return VEXA_USB_STATUS_DEVICE_REMOVED;
            if (failed_)
                return kBridgeStreamFailed;
            signals_[kBridgeStream].clear();
            return kBridgeEmpty;
        }
        --full_;
    }
    // Empty only when a byte of the event pipe was taken for a full buffer.
    const int32_t status = vexa_usb_data_stream_buffer_lock(handle_, data, size);
    return status == VEXA_USB_STATUS_DATA_STREAM_BUFFER_EMPTY ? kBridgeEmpty : status;
}

int32_t Device::streamNext(uint8_t **data, uint64_t *size) {
    const MutexLock lock(mutex_);
    if (!streaming_ || stopWanted_ || closing_)
        return kBridgeClosed;
    int32_t status = giveBack();
    if (status == VEXA_USB_STATUS_SUCCESS)
        status = lockNext(data, size);
    if (status == VEXA_USB_STATUS_SUCCESS) {
        locked_ = *data;
        lockedIsViewed_ = false;
        views().add(locked_, shared_from_this());
        ++views_;
    }
    return status;
}

void Device::onProgress(void *data, double progress) {
    auto *const device = static_cast<Device *>(data);
    device->tellProgress(progress);
    const MutexLock lock(device->mutex_);
    // To close is the one way to end a download; it is the only call on the device.
    if (device->closing_ && device->calls_ == 1 && device->views_ == 0 &&
        device->handle_ != nullptr)
        device->closeNow();
}

int32_t Device::download(_vexa_usb_device *handle, const uint8_t *data, uint64_t size) {
    return shielded([&]() { return vexa_usb_dfu_download(handle, data, size, onProgress, this); });
}

// Changes of the device list.
class Watch final : public Source {
public:
    int32_t start(uint64_t id) {
        return shielded([&]() {
            return vexa_usb_register_device_list_event_callback(onChange, asData(id),
                                                                &registration_);
        });
    }
    void end() override {
        {
            const MutexLock lock(events_);
            if (ended_)
                return;
            ended_ = true;
            signals_[kBridgeEvents].set();
        }
        vexa_usb_deregister_device_list_event_callback(registration_);
    }
    int32_t take(BridgeChange *change) EXCLUDES(events_) {
        const MutexLock lock(events_);
        const int32_t status = queue_.take(*change);
        if (queue_.isEmpty() && !ended_)
            signals_[kBridgeEvents].clear();
        return status == kBridgeEmpty && ended_ ? int32_t{kBridgeClosed} : status;
    }

private:
    static void onChange(uint32_t type, const _vexa_usb_device_list_item *item, void *data) {
        const auto watch = sources().find<Watch>(reinterpret_cast<uint64_t>(data));
        if (watch == nullptr)
            return;
        const MutexLock lock(watch->events_);
        watch->queue_.post({item->id, type, item->vendor_id, item->product_id});
        watch->signals_[kBridgeEvents].set();
    }

    uint32_t registration_ = 0;
    Queue<BridgeChange> queue_ GUARDED_BY(events_);
    bool ended_ GUARDED_BY(events_) = false;
};

// Calls `call` with the source; without one, answers `otherwise`.
template <typename Kind, typename Result, typename Call>
Result with(uint64_t id, Result otherwise, Call call) {
    const std::shared_ptr<Kind> source = sources().find<Kind>(id);
    return source == nullptr ? otherwise : call(*source);
}

namespace {

std::atomic<bool> isForked = false;
std::atomic<bool> isLeaving = false;
pthread_t leavingThread;

} // namespace

Departure::~Departure() {
    while (isLeaving && pthread_equal(pthread_self(), leavingThread) == 0)
        pause();
}

DeviceCall::DeviceCall(uint64_t device) : device_(sources().find<Device>(device)) {
    handle_ = device_ == nullptr ? nullptr : device_->enter();
}

DeviceCall::~DeviceCall() {
    if (handle_ != nullptr)
        device_->leave();
}

} // namespace bridge

using namespace bridge;

const char *bridgeException(void) {
    return exceptionText.c_str();
}

void bridgeLeave(void) {
    leavingThread = pthread_self();
    isLeaving = true;
}

void bridgeForked(void) {
    isForked = true;
    // Without destructors: what they would lock may have been locked at the fork.
    on_exit(
        [](int status, void *) {
            std::fflush(nullptr);
            _exit(status);
        },
        nullptr);
}

uint64_t bridgeDeviceNew(void) {
    return shielded([]() { return sources().add(std::make_shared<Device>()); });
}

int32_t bridgeOpen(uint64_t device, const _vexa_usb_device_list_item *record) {
    const Departure departure;
    return with<Device>(device, int32_t{VEXA_USB_STATUS_NO_MEMORY},
                        [&](Device &found) { return found.open(device, record); });
}

int32_t bridgeClose(uint64_t device, uint32_t timeoutMs) {
    if (isForked)
        return VEXA_USB_STATUS_SUCCESS;
    const Departure departure;
    return with<Device>(device, int32_t{VEXA_USB_STATUS_SUCCESS},
                        [&](Device &found) { return found.close(timeoutMs); });
}

int32_t bridgeIsRemoved(uint64_t device, uint32_t timeoutMs) {
    return with<Device>(device, int32_t{0},
                        [&](Device &found) -> int32_t { return found.isRemoved(timeoutMs); });
}

int64_t bridgeTakeEvent(uint64_t device) {
    const Departure departure;
    return with<Device>(device, int64_t{kBridgeClosed},
                        [](Device &found) { return found.takeEvent(); });
}

int32_t bridgeStreamStart(uint64_t device, uint8_t endpoint, uint64_t bufferSize,
                          uint64_t bufferCount, int32_t strict) {
    const Departure departure;
    const DeviceCall call(device);
    return call.handle() == nullptr
               ? kBridgeClosed
               : call.device().streamStart(endpoint, bufferSize, bufferCount, strict != 0);
}

int32_t bridgeStreamStop(uint64_t device) {
    if (isForked)
        return VEXA_USB_STATUS_SUCCESS;
    const Departure departure;
    const DeviceCall call(device);
    return call.handle() == nullptr ? kBridgeClosed : call.device().streamStop();
}

int32_t bridgeStreamNext(uint64_t device, uint8_t **data, uint64_t *size) {
    const Departure departure;
    const DeviceCall call(device);
    return call.handle() == nullptr ? kBridgeClosed : call.device().streamNext(data, size);
}

void bridgeStreamViewed(uint64_t device) {
    with<Device>(device, 0, [](Device &found) {
        found.streamViewed();
        return 0;
    });
}

void bridgeViewGone(void *data) {
    if (isForked)
        return;
    const std::shared_ptr<Device> device = views().take(data);
    if (device != nullptr)
        device->viewGone();
}

int32_t bridgeDfuDownload(uint64_t device, const uint8_t *data, uint64_t size) {
    const Departure departure;
    const DeviceCall call(device);
    return call.handle() == nullptr ? kBridgeClosed
                                    : call.device().download(call.handle(), data, size);
}

double bridgeProgress(uint64_t device) {
    return with<Device>(device, 0.0, [](Device &found) { return found.takeProgress(); });
}

void bridgeLoadEnded(uint64_t device) {
    with<Device>(device, 0, [](Device &found) {
        found.tellProgress(1);
        return 0;
    });
}

uint64_t bridgeWatchNew(int32_t *status) {
    const uint64_t id = shielded([]() { return sources().add(std::make_shared<Watch>()); });
    *status = with<Watch>(id, int32_t{VEXA_USB_STATUS_NO_MEMORY},
                          [&](Watch &found) { return found.start(id); });
    if (*status == VEXA_USB_STATUS_SUCCESS)
        return id;
    sources().remove(id);
    return 0;
}

int32_t bridgeTakeChange(uint64_t watch, BridgeChange *change) {
    const Departure departure;
    return with<Watch>(watch, int32_t{kBridgeClosed},
                       [&](Watch &found) { return found.take(change); });
}

int32_t bridgeWait(uint64_t id, int32_t what, int32_t timeoutMs) {
    const Departure departure;
    const std::shared_ptr<Source> source = sources().find<Source>(id);
    const Signal *const signal = source == nullptr ? nullptr : source->signal(what);
    if (signal == nullptr)
        return kBridgeReady; // whoever looks then is told that it is closed
    pollfd waited{signal->descriptor(), POLLIN, 0};
    const int ready = poll(&waited, 1, timeoutMs);
    if (ready == 0)
        return kBridgeTimedOut;
    return ready < 0 ? kBridgeInterrupted : kBridgeReady;
}

int32_t bridgeDuplicate(uint64_t id, int32_t what) {
    const std::shared_ptr<Source> source = sources().find<Source>(id);
    const Signal *const signal = source == nullptr ? nullptr : source->signal(what);
    if (signal == nullptr)
        return kBridgeClosed;
    const int copy = fcntl(signal->descriptor(), F_DUPFD_CLOEXEC, 0);
    return copy < 0 ? -errno : copy;
}

void bridgeFree(uint64_t id) {
    if (isForked)
        return;
    const std::shared_ptr<Source> source = sources().find<Source>(id);
    if (source == nullptr)
        return;
    source->end();
    sources().remove(id);
}
