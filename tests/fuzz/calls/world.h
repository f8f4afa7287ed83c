#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <set>
#include <span>
#include <vector>

#include "core/mutex.h"
#include "fuzz/calls/model.h"
#include "support/fake_libusb.h"
#include "vexa_usb.h"

/*
 * An input at work.  Its first byte has the settings; then come operations of four bytes, up to one
 * that begins with 0xFF; the rest, from its end on, orders the threads.
 *
 * An operation is a call of the library or something that happens on the bus.  The upper two bits
 * say who does it: the main thread, one of two others, or the next callback.  A barrier ends a
 * phase: the threads are joined, all comes to rest, and what the library has and has reported must
 * be exactly what the model expects.
 */
namespace calls {

class World;

struct Operation {
    uint8_t kind, a, b, c;
    uint8_t actor() const { return kind >> 6U; }
    uint8_t what() const { return kind & 0x3FU; }
    bool isBarrier() const { return what() == 41; }
};

// A place on the bus, with its device.
struct Place {
    void see(uint64_t id) { entry = std::max(entry, id); }

    libusb_device *device = nullptr;
    bool isSupported = true, streams = true;
    std::atomic<bool> isAttached{false};
    std::atomic<bool> isClaimed{false};    // by a handle that knows of no removal
    uint64_t changedAt = 0, leftAt = 0;    // leftAt: with a notice
    bool isListed = false, isKnown = true; // isKnown: whether it is listed
    uint64_t entry = 0;                    // the newest that was seen
    bool isSeen = false;                   // no newer one can be listed
};

// An opened device, one that is being opened, or one whose opening failed.
struct Handle {
    void heard(uint32_t event);
    model::Flow *runThat(bool hasStarted); // and has not stopped
    model::Flow &latest();
    void noteOverlap(uint64_t since); // of a lock or unlock with a start or stop

    World *world = nullptr;
    Place *place = nullptr;
    _vexa_usb_device *device = nullptr;
    uint64_t entry = 0, openedAt = 0, removedAt = 0, closedAt = 0, disconnectedAt = 0;
    model::Fact pipe, stream, locked;
    model::Flow bytes;               // of the event pipe
    std::array<model::Flow, 8> runs; // of the stream
    std::atomic<size_t> runCount{0};
    size_t refusals = 0;           // before the pipe was enabled
    const uint8_t *data = nullptr; // locked, and in step
    unsigned removals = 0, callsAfterClose = 0;
    bool hasClaim = false, isOpen = false, pipeEnded = false;
    bool mayBeLoopless = false, isLoopless = false; // perhaps, and for certain
    // Calls of two runs of the stream have overlapped: who knows which event, or buffer, is whose.
    bool isLoose = false;
};

struct Slot {
    static constexpr int kAlone = 1000;
    bool enter() { return users.fetch_add(1) >= 0 || (--users, false); }
    bool enterAlone(int others) { return users.compare_exchange_strong(others, others - kAlone); }

    std::atomic<int> users{0};
    std::atomic<Handle *> handle{nullptr};
};

struct Registration {
    static constexpr uint32_t kNone = 1000; // no registration has that, or a higher one
    World *world = nullptr;
    uint32_t id = kNone;
    bool isActive = false, isDoubtful = false, isCancelled = false;
    bool isExact = false; // whether `entries` is what it has been told of
    unsigned callsAfterEnd = 0;
    std::set<uint64_t> entries;
};

// An operation, and where it is done.
struct Step : Operation {
    Handle *on;                             // never null
    const _vexa_usb_device_list_item *item; // of the list callback, if in one
    Handle *busy;                           // with a call whose callback this is
};

// One call of the library: makes it, then gathers what it may answer, in the order of its checks.
class Call {
public:
    explicit Call(World &world, const Handle *handle = nullptr, model::Fact *fact = nullptr,
                  int change = 0);
    template <typename Function>
    int32_t make(Function function);
    Call &check(bool canPass, bool canFail, int32_t status);
    Call &check(bool passes, int32_t status) { return check(passes, !passes, status); }
    Call &check(const model::Fact &fact, bool wanted, int32_t status) {
        return check(fact.canBe(wanted, since), fact.canBe(!wanted, since), status);
    }
    Call &initialized();
    Call &onHandle(bool valid = true); // initialised, and a handle
    Call &ready();                     // the list is there
    Call &present();
    Call &connected();
    Call &onStream(bool valid = true);   // an active one
    Call &canTransfer(uint8_t endpoint); // asynchronously
    // What an armed failure of libusb, and one of memory or threads, may lead to.
    Call &refused(std::initializer_list<int32_t> statuses);
    Call &starved(std::initializer_list<int32_t> statuses);
    int32_t judge(const char *name, std::initializer_list<int32_t> answers);

    const uint64_t since;

private:
    World &world_;
    const Handle *const handle_;
    model::Fact *const fact_;
    const int change_;
    const size_t failures_;
    bool isReached_ = true;
    std::set<int32_t> statuses_;
    int32_t status_ = 0;
};

class World {
public:
    explicit World(std::span<const uint8_t> input);
    void run();

private:
    friend class Call;
    friend struct Handle;
    using List = _vexa_usb_device_list_item **;
    using Operations = std::vector<Operation>;

    static void onEvent(uint32_t event, void *data);
    static void onChange(uint32_t type, const _vexa_usb_device_list_item *item, void *data);
    static void onProgress(void *data, double done);
    void runInCallback(const _vexa_usb_device_list_item *item, Handle *busy);
    void runPhase(Operations::const_iterator begin, Operations::const_iterator end);
    void perform(const Operation &op, const _vexa_usb_device_list_item *item, Handle *busy);
    void rest();
    void checkAtRest();
    void checkHandle(Handle &handle, const std::set<uint64_t> &entries);
    bool followsBus() const;
    bool isStarved(uint64_t since) const { return isStarving_ || starvedAt_ > since; }
    Place *placeOf(uint16_t product);

    void init(const Step &op);
    void fini(const Step &op);
    void tell(const Step &op);
    void getList(const Step &op);
    void dropList(const Step &op);
    void freeList(List list);
    void update(const Step &op);
    void subscribe(const Step &op);
    void cancel(const Step &op);
    void open(const Step &op);
    int32_t openEntry(const Step &op, const _vexa_usb_device_list_item *item, Handle &handle);
    void close(const Step &op);
    void ask(const Step &op);
    void transfer(const Step &op);
    void enable(const Step &op);
    void disable(const Step &op);
    void start(const Step &op);
    void stop(const Step &op);
    void lock(const Step &op);
    void unlock(const Step &op);
    void load(const Step &op);
    void plug(const Step &op);
    void change(Place &place, bool attach, bool isNoticed);
    void complete(const Step &op);
    void disturb(const Step &op);

    Operations operations_, callbackOperations_;
    std::span<const uint8_t> order_;
    vexausb::Mutex bus_; // held while one place of the bus changes
    std::array<Place, 6> places_;
    std::array<Slot, 3> slots_;
    std::array<Handle, 12> handles_;
    std::atomic<size_t> handleCount_{0};
    std::array<Registration, 6> registrations_;
    std::atomic<size_t> registrationCount_{0};
    std::array<std::atomic<List>, 2> lists_{};
    std::array<std::atomic<List>, 64> unfreed_{};
    std::atomic<size_t> unfreedCount_{0}, callbacksDone_{0};
    std::atomic<int> callbacksRunning_{0}, uses_{0}; // uses_: inits that no fini has balanced
    std::atomic<bool> isStarving_{false};
    model::Fact initialized_;
    model::Fact changing_; // the first init or the last fini may be at work
    uint64_t starvedAt_ = 0, finiAt_ = 0, restedAt_ = 0;
    std::atomic<uint32_t> registered_{0}; // since the last init, or being registered
    bool hasEnded_ = false;               // perhaps a last fini has begun
    bool isLoopOver_ = false;             // for certain the event loop has ended
    bool isPartial_ = false;              // an init has met a failure
    std::atomic<bool> mayAbandon_{false}; // transfers in flight, at a close
};

} // namespace calls
