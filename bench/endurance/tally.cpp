#include "tally.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <utility>

namespace endurance {

namespace {

size_t entries(const char *directory) {
    const std::filesystem::directory_iterator all(directory);
    return static_cast<size_t>(std::distance(begin(all), end(all)));
}

} // namespace

void Tally::finding(const std::string &what) {
    ++findings_;
    std::fprintf(stderr, "endurance: %s\n", what.c_str());
}

void Tally::addLatency(std::chrono::steady_clock::duration time) {
    const vexausb::MutexLock lock(mutex_);
    latencies_.push_back(std::chrono::duration<double, std::milli>(time).count());
}

std::vector<double> Tally::takeLatencies() {
    std::vector<double> taken;
    {
        const vexausb::MutexLock lock(mutex_);
        taken.swap(latencies_);
    }
    std::sort(taken.begin(), taken.end());
    return taken;
}

Resources Resources::now() {
    Resources resources;
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with("VmRSS:"))
            resources.residentKib = std::stoull(line.substr(6));
    }
    resources.threads = entries("/proc/self/task");
    resources.descriptors = entries("/proc/self/fd");
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);)
        resources.mappings += line.find("/dev/bus/usb") == std::string::npos ? 1 : 0;
    return resources;
}

} // namespace endurance
