#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include <CLI/CLI.hpp>
#include <fmt/chrono.h>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "amounts.h"
#include "commands.h"
#include "device.h"
#include "device_json.h"
#include "errors.h"
#include "instrument_protocol.h"
#include "mailbox.h"
#include "output.h"
#include "progress.h"
#include "stop_condition.h"
#include "stream_pattern.h"

namespace tool {

namespace {

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;
using Events = Mailbox<_vexa_usb_device_event>;

constexpr std::chrono::seconds kRemovalTime{2};

struct StreamOptions {
    uint8_t endpoint = sim::kStreamEndpoint;
    std::string output;
    std::optional<uint64_t> bytes;
    std::optional<double> seconds;
    uint64_t bufferSize = 1U << 20;
    uint64_t bufferCount = 32;
    double silence = 5;
    bool checkPattern = false;
    bool keepGoing = false;
    bool metadata = false;
};

// One run of a stream: drains the ring until enough has come.
class StreamRun {
public:
    StreamRun(const StreamOptions &options, const CommonOptions &common);

    void run();
    void report() const;
    // Writes the file beside the recording; `failure` is empty when there was none.
    void writeMetadata(const std::string &failure);

private:
    void checkMemory() const;
    void checkEndpoint() const;
    void begin();
    bool isFinished() const;
    void handleNext();
    void handleBuffer();
    void checkStatus(int32_t status) const;
    void checkBytes(std::span<const uint8_t> bytes) const;
    [[noreturn]] void throwLost() const;
    void throwIfSilent() const;
    void showProgress();
    Seconds elapsed() const;
    nlohmann::json result() const;

    const StreamOptions &options_;
    const CommonOptions &common_;
    const std::shared_ptr<Events> events_ = std::make_shared<Events>();
    std::optional<Output> output_;
    std::optional<Output> metadata_; // both opened before the work, so that errors show early
    const Library library_;
    const Device device_;
    Progress progress_;
    Clock::time_point start_;                    // of the stream; none before
    std::chrono::system_clock::time_point date_; // of its start
    Clock::time_point lastData_;
    std::optional<Clock::time_point> end_;
    uint64_t bytesDone_ = 0;
    uint64_t buffersDone_ = 0;
};

StreamRun::StreamRun(const StreamOptions &options, const CommonOptions &common)
    : options_(options),
      common_(common),
      device_(common_.device,
              [events = events_](_vexa_usb_device_event event) { events->post(event); }),
      progress_(Progress::formFor(common_.progress, common_.json),
                {options_.bytes,
                 options_.seconds ? std::optional<Seconds>(*options_.seconds) : std::nullopt}) {
    checkMemory();
    if (options_.metadata)
        metadata_.emplace(options_.output + ".json", Output::Existing::Replace);
    if (!options_.output.empty())
        output_.emplace(options_.output);
}

// The system kills a program that uses more memory than there is.
void StreamRun::checkMemory() const {
    uint64_t most = 0;
    check(vexa_usb_data_stream_memory_size_max(device_.get(), &most), "starting the stream");
    if (options_.bufferSize > most / options_.bufferCount)
        throw Error(Exit::Usage,
                    fmt::format("{} buffers of {} are more than the {} that the device advises",
                                options_.bufferCount, sizeText(options_.bufferSize),
                                sizeText(most)),
                    "Give fewer or smaller buffers (--buffers, --buffer-size).");
}

// An older recording is not to be emptied for an endpoint that cannot stream.  It cannot wait until
// the stream has started: a large file takes longer to empty than the ring to fill.
void StreamRun::checkEndpoint() const {
    uint16_t size = 0;
    if ((options_.endpoint & kEndpointIn) == 0)
        check(VEXA_USB_STATUS_INVALID_ENDPOINT_DIRECTION, "starting the stream");
    check(vexa_usb_get_max_packet_size(device_.get(), options_.endpoint, &size),
          "starting the stream");
}

// A simulated instrument continues its stream where it stopped; the check needs its beginning.
void StreamRun::begin() {
    if (options_.checkPattern) {
        uint8_t position[8] = {};
        check(vexa_usb_control_transfer(device_.get(), VEXA_USB_DIRECTION_OUT, VEXA_USB_TYPE_VENDOR,
                                        VEXA_USB_RECIPIENT_DEVICE, sim::kRequestSeek, 0, 0,
                                        position, sizeof(position)),
              "rewinding the simulated instrument's stream");
    }
    checkEndpoint();
    if (output_)
        output_->overwrite();
    check(vexa_usb_data_stream_start(device_.get(), options_.endpoint, options_.bufferSize,
                                     options_.bufferCount),
          "starting the stream");
    start_ = lastData_ = Clock::now();
    date_ = std::chrono::system_clock::now();
}

void StreamRun::run() {
    begin();
    while (!isFinished())
        handleNext();
    end_ = Clock::now();
    progress_.finish();
    check(vexa_usb_data_stream_stop(device_.get()), "stopping the stream");
    if (output_)
        output_->close();
    if (options_.bytes && bytesDone_ < *options_.bytes)
        throw Error(Exit::Failed, fmt::format("interrupted after {} bytes", bytesDone_));
}

bool StreamRun::isFinished() const {
    return interrupted() || (options_.bytes && bytesDone_ >= *options_.bytes) ||
           (options_.seconds && Clock::now() - start_ >= Seconds(*options_.seconds));
}

void StreamRun::handleNext() {
    const auto event = events_->wait(kWaitStep);
    if (!event) {
        showProgress();
        throwIfSilent();
        if (output_)
            output_->throwIfUnread();
    } else if (*event == VEXA_USB_DEVICE_EVENT_DATA_STREAM_BUFFER_FULL) {
        handleBuffer();
    } else if (*event == VEXA_USB_DEVICE_EVENT_DATA_STREAM_ERROR) {
        throwLost();
    } else if (*event == VEXA_USB_DEVICE_EVENT_REMOVED) {
        checkStatus(VEXA_USB_STATUS_DEVICE_REMOVED);
    }
}

void StreamRun::checkStatus(int32_t status) const {
    check(status, fmt::format("streaming, after {} bytes", bytesDone_));
}

// A transfer to a device that is unplugged fails shortly before the removal is reported.
void StreamRun::throwLost() const {
    const auto until = Clock::now() + kRemovalTime;
    while (Clock::now() < until && !interrupted()) {
        if (events_->wait(kWaitStep) == VEXA_USB_DEVICE_EVENT_REMOVED)
            checkStatus(VEXA_USB_STATUS_DEVICE_REMOVED);
    }
    throw Error(
        Exit::DataWrong,
        fmt::format("data were lost after {} bytes: {}no buffer was free, or the system "
                    "refused a transfer",
                    bytesDone_, options_.keepGoing ? "" : "a transfer failed or came short, "),
        "--verbose tells which it was. If no buffer was free, give more or larger ones "
        "(--buffers, --buffer-size), or write to a faster place. If a transfer was refused, "
        "with many devices at once, raise the system's limit: echo 256 | sudo tee "
        "/sys/module/usbcore/parameters/usbfs_memory_mb");
}

void StreamRun::handleBuffer() {
    uint8_t *data = nullptr;
    uint64_t size = 0;
    checkStatus(vexa_usb_data_stream_buffer_lock(device_.get(), &data, &size));
    if (options_.bytes)
        size = std::min(size, *options_.bytes - bytesDone_);
    const std::span<const uint8_t> bytes(data, size);
    if (options_.checkPattern)
        checkBytes(bytes);
    if (output_)
        output_->write(bytes);
    checkStatus(vexa_usb_data_stream_buffer_unlock(device_.get()));
    bytesDone_ += size;
    ++buffersDone_;
    lastData_ = Clock::now();
    showProgress();
}

// Each full buffer has one event in the mailbox.
void StreamRun::showProgress() {
    const double fill =
        static_cast<double>(events_->size()) / static_cast<double>(options_.bufferCount);
    progress_.update(bytesDone_, std::min(fill, 1.0));
}

void StreamRun::checkBytes(std::span<const uint8_t> bytes) const {
    const size_t right = sim::firstPatternError(bytesDone_, bytes);
    if (right != bytes.size())
        throw Error(Exit::DataWrong,
                    fmt::format("the byte at {} is wrong: {:#04x} instead of {:#04x}",
                                bytesDone_ + right, bytes[right],
                                sim::patternByte(bytesDone_ + right)),
                    "--check is for the simulated instrument, with nobody else reading from it.");
}

void StreamRun::throwIfSilent() const {
    if (Clock::now() - lastData_ >= Seconds(options_.silence))
        throw Error(Exit::Timeout,
                    fmt::format("no data for {} s, after {} bytes", options_.silence, bytesDone_),
                    "The device has stopped sending, its endpoint is halted, or a buffer takes "
                    "longer than that to fill (--silence).");
}

Seconds StreamRun::elapsed() const {
    return end_.value_or(Clock::now()) - start_;
}

nlohmann::json StreamRun::result() const {
    const double seconds = std::max(elapsed().count(), 1e-9);
    nlohmann::json result{{"bytes", bytesDone_},
                          {"seconds", seconds},
                          {"bytes_per_second", static_cast<double>(bytesDone_) / seconds},
                          {"buffers", buffersDone_},
                          {"buffer_size", options_.bufferSize},
                          {"gaps_possible", options_.keepGoing}};
    if (!options_.keepGoing)
        result["loss_reported"] = false;
    if (options_.checkPattern)
        result["pattern"] = "right";
    return result;
}

void StreamRun::report() const {
    FILE *const to = options_.output == "-" ? stderr : stdout;
    const nlohmann::json facts = result();
    if (common_.json)
        fmt::print(to, "{}\n", facts.dump());
    else
        fmt::print(to, "{} in {:.2f} s: {:.1f} MB/s, {} buffers of {}, {}{}\n",
                   sizeText(bytesDone_), facts["seconds"].get<double>(),
                   facts["bytes_per_second"].get<double>() / 1e6, buffersDone_,
                   sizeText(options_.bufferSize),
                   options_.keepGoing ? "gaps possible" : "no loss reported",
                   options_.checkPattern ? ", every byte right" : "");
}

void StreamRun::writeMetadata(const std::string &failure) {
    if (!metadata_ || start_ == Clock::time_point())
        return;
    nlohmann::json facts = result();
    facts["time"] = fmt::format("{:%FT%T}Z", fmt::gmtime(date_));
    facts["endpoint"] = options_.endpoint;
    facts["file"] = std::filesystem::path(options_.output).filename().string();
    if (device_.attached())
        facts["device"] = attachedJson(*device_.attached());
    if (!failure.empty()) {
        facts["failure"] = failure;
        facts.erase("loss_reported");
        facts.erase("pattern");
    }
    const std::string text = facts.dump(2, ' ', false, kReplaceWrongText) + "\n";
    metadata_->write(std::span(reinterpret_cast<const uint8_t *>(text.data()), text.size()));
    metadata_->close();
}

void stream(const StreamOptions &options, const CommonOptions &common) {
    if (options.metadata && options.output == "-")
        throw Error(Exit::Usage, "--metadata stands beside a file, not standard output",
                    "Name a file with --output.");
    setenv("VEXA_USB_STREAM", options.keepGoing ? "default" : "strict", 1);
    catchInterrupts();
    StreamRun run(options, common);
    try {
        run.run();
    } catch (const Error &error) {
        run.writeMetadata(error.what()); // describes what was recorded until then
        throw;
    }
    run.writeMetadata({});
    run.report();
}

} // namespace

void defineStreamCommand(CLI::App &command, CommonOptions &common) {
    const auto options = std::make_shared<StreamOptions>();
    command.add_option("ENDPOINT", options->endpoint, "Endpoint address")
        ->default_str("0x82")
        ->transform(upTo(0xFF));
    command.add_option("-o,--output", options->output,
                       "Write the stream to this file; - is standard output. Without it, the "
                       "data are dropped");
    command
        .add_flag("--metadata", options->metadata,
                  "Describe the recording in a file beside it, OUTPUT.json: time, device, serial, "
                  "rate")
        ->needs("--output");
    CLI::Option *bytes =
        command.add_option("-b,--bytes", options->bytes, "End after N bytes, for instance 256M")
            ->transform(byteCount());
    command.add_option("-s,--seconds", options->seconds, "End after N seconds")
        ->check(positive())
        ->excludes(bytes);
    command.add_option("--buffer-size", options->bufferSize, "Bytes in a buffer")
        ->transform(byteCount())
        ->capture_default_str();
    command.add_option("--buffers", options->bufferCount, "Number of buffers")
        ->transform(positiveCount())
        ->capture_default_str();
    command.add_option("--silence", options->silence, "Give up after N seconds without data")
        ->check(positive())
        ->capture_default_str();
    command.add_flag("--keep-going", options->keepGoing,
                     "Go on after a transfer that failed or came short, which leaves a gap that "
                     "is not reported; without it, that ends the stream");
    command.add_flag("--check", options->checkPattern,
                     "Check every byte of the simulated instrument's stream");
    command.add_flag("--progress", common.progress,
                     "Show the progress also when not on a terminal, in a line a second; with "
                     "--json, each an object on standard error");
    addDeviceOptions(command, common);
    addJsonOption(command, common);
    command.footer("Without --bytes or --seconds it goes on until Ctrl-C. It ends with status "
                   "6 at the first\ngap in the data, and with status 1 when the reader of its "
                   "output has gone.\n\nExamples:\n"
                   "  vexa-usb stream --bytes 256M --check\n"
                   "  vexa-usb stream 0x82 --seconds 10 -o run.dat\n"
                   "  vexa-usb stream -o - | consumer");
    command.callback([&common, options]() { stream(*options, common); });
}

} // namespace tool
