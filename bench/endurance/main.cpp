// Uses many simulated instruments at once for a long time, and looks at every byte.  Its last line
// is what came of it, as JSON; with --samples it tells that every second.
//
// "lost_streams" ended with an error while their user was busy with something else;
// "silent_streams" were silent for so long that they must have ended where no event tells of it.
//
// Exit status: 0 when nothing happened that must not, 1 when something did, 2 for wrong arguments.
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <malloc.h>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "tally.h"
#include "user.h"
#include "vexa_usb.h"

namespace endurance {

namespace {

using Clock = std::chrono::steady_clock;

struct Options {
    Settings settings;
    size_t devices = 1;
    double seconds = 10;
    uint64_t seed = 1;
    bool samples = false;
    bool untilRemoved = false;
    bool times = false;
};

double milliseconds(const std::function<void()> &action, int times) {
    const auto before = Clock::now();
    for (int i = 0; i < times; ++i)
        action();
    return std::chrono::duration<double, std::milli>(Clock::now() - before).count() / times;
}

uint64_t listed() {
    _vexa_usb_device_list_item **list = nullptr;
    uint64_t count = 0;
    if (vexa_usb_get_device_list(&list, &count) == VEXA_USB_STATUS_SUCCESS)
        vexa_usb_free_device_list(list);
    return count;
}

nlohmann::json resources() {
    const Resources now = Resources::now();
    return {{"resident_kib", now.residentKib},
            {"threads", now.threads},
            {"descriptors", now.descriptors},
            {"mappings", now.mappings}};
}

// How long calls take with the devices that there are.
nlohmann::json callTimes() {
    Claims claims;
    Inbox &inbox = *new Inbox; // a callback can run once more after the close
    return {{"listed", listed()},
            {"snapshot_ms", milliseconds([]() { listed(); }, 200)},
            {"update_ms", milliseconds([]() { vexa_usb_update_device_list(); }, 20)},
            {"open_and_close_ms", milliseconds(
                                      [&]() {
                                          const auto [device, id] = claims.open(inbox, 0);
                                          vexa_usb_close(device);
                                          claims.giveBack(id);
                                      },
                                      20)}};
}

// The users of this process, each on a thread of its own.
class Users {
public:
    explicit Users(const Options &options) : options_(options), engine_(options.seed) {
        for (size_t i = 0; i < options.devices; ++i) {
            users_.push_back(std::make_unique<User>(options_.settings, claims_, tally_, engine_()));
            threads_.emplace_back(
                [&user = *users_.back(), last = options.untilRemoved]() { user.run(last); });
        }
    }
    Users(const Users &) = delete;
    Users &operator=(const Users &) = delete;
    ~Users() { join(); }

    void join() {
        leave();
        for (std::thread &thread : threads_)
            thread.join();
        threads_.clear();
    }
    void leave() {
        for (const auto &user : users_)
            user->leave = true;
    }
    void letGiveUp() {
        for (const auto &user : users_)
            user->mayGiveUp = true;
    }
    bool allInLastSession() const {
        for (const auto &user : users_) {
            if (!user->isLast)
                return false;
        }
        return true;
    }
    void pullOne() { users_[engine_() % users_.size()]->pull = true; }

    // Ends the program when no user has done anything for long.
    void watch() {
        const uint64_t now = tally_.bytes + tally_.sessions;
        if (now != progress_) {
            progress_ = now;
            lastProgress_ = Clock::now();
        } else if (Clock::now() - lastProgress_ > 3 * kPatience) {
            std::fprintf(stderr, "endurance: everything stands still\n");
            std::abort();
        }
    }

    nlohmann::json report(Clock::time_point begin) {
        nlohmann::json result = resources();
        const std::vector<double> latencies = tally_.takeLatencies();
        const auto latency = [&](size_t percent) {
            return latencies.empty()
                       ? nlohmann::json()
                       : nlohmann::json(latencies[(latencies.size() - 1) * percent / 100]);
        };
        result["seconds"] = std::chrono::duration<double>(Clock::now() - begin).count();
        result["bytes"] = tally_.bytes.load();
        result["sessions"] = tally_.sessions.load();
        result["event_bytes"] = tally_.eventBytes.load();
        result["removals"] = tally_.removals.load();
        result["overflows"] = tally_.overflows.load();
        result["lost_streams"] = tally_.lostStreams.load();
        result["silent_streams"] = tally_.silentStreams.load();
        result["timeouts"] = tally_.timeouts.load();
        result["open"] = tally_.open.load();
        result["findings"] = tally_.findings();
        result["latency_ms"] = {latency(50), latency(99)};
        return result;
    }
    bool allGood() const { return tally_.findings() == 0; }

private:
    const Options &options_;
    std::mt19937_64 engine_; // of the thread that made this
    Claims claims_;
    Tally tally_;
    std::vector<std::unique_ptr<User>> users_;
    std::vector<std::thread> threads_;
    uint64_t progress_ = 0;
    Clock::time_point lastProgress_ = Clock::now();
};

void say(const nlohmann::json &line) {
    std::printf("%s\n", line.dump().c_str());
    std::fflush(stdout);
}

// Returns false when there was a finding.
bool use(const Options &options) {
    const auto begin = Clock::now();
    nlohmann::json result;
    bool good = false;
    {
        Users users(options);
        double pulls = 0;
        bool leaving = false;
        for (int second = 1; !leaving || (options.untilRemoved && !users.allInLastSession());
             ++second) {
            std::this_thread::sleep_until(begin + std::chrono::seconds(second));
            if (second >= options.seconds && !leaving) {
                leaving = true;
                users.leave();
            }
            if (!leaving)
                pulls += options.settings.pulls;
            while (pulls >= 1) {
                users.pullOne();
                pulls -= 1;
            }
            users.watch();
            if (options.samples)
                say(users.report(begin));
        }
        if (options.untilRemoved) {
            users.letGiveUp();
            say({{"ready", true}});
        }
        users.join();
        result = users.report(begin);
        good = users.allGood();
    }
    result["after_closing"] = resources();
    malloc_trim(0);
    result["after_trimming"] = resources();
    result["still_listed"] = listed();
    say(result);
    return good;
}

} // namespace

} // namespace endurance

int main(int argc, char **argv) {
    endurance::Options options;
    CLI::App app("Uses simulated instruments for a long time and looks at every byte");
    endurance::Settings &settings = options.settings;
    app.add_option("--devices", options.devices, "devices that are used at once")
        ->check(CLI::PositiveNumber);
    app.add_option("--seconds", options.seconds, "how long")->check(CLI::PositiveNumber);
    app.add_option("--seed", options.seed, "another seed, another order of things");
    app.add_option("--buffer-size", settings.bufferSize, "bytes; each stream its own if not given");
    app.add_option("--buffer-count", settings.bufferCount, "buffers of a ring");
    int64_t longest = 5;
    app.add_option("--session", longest, "seconds that a device is used at most")
        ->check(CLI::PositiveNumber);
    int64_t delay = 0;
    app.add_option("--delay", delay, "milliseconds that each answer of a stream is late");
    app.add_option("--pulls", settings.pulls, "devices to unplug, and plug in again, a second");
    app.add_flag("--overflows", settings.overflows, "some streams are not drained");
    app.add_flag("--foreign", settings.foreign, "others unplug devices, too");
    app.add_flag("--samples", options.samples, "a line of JSON every second");
    app.add_flag("--until-removed", options.untilRemoved,
                 "at the end, stream until all devices have gone");
    app.add_flag("--times", options.times, "only measure how long calls take");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        return app.exit(error) == 0 ? 0 : 2;
    }
    settings.longest = std::chrono::seconds(longest);
    settings.delay = std::chrono::milliseconds(delay);
    const char *const mode = std::getenv("VEXA_USB_STREAM");
    settings.strict = mode != nullptr && std::string_view(mode) == "strict";

    vexa_usb_init();
    vexa_usb_update_device_list();
    bool good = true;
    if (options.times)
        endurance::say(endurance::callTimes());
    else
        good = endurance::use(options);
    vexa_usb_fini();
    return good ? 0 : 1;
}
