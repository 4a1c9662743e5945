#include "platform/process/ClientCapacity.h"

#include "platform/process/OpenFileLimit.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <fstream>
#include <limits>
#include <mutex>
#include <optional>
#include <string>

namespace VEQ {
namespace {

// The control group's figures change slowly next to a burst of handshakes; reading them costs
// more than the rest of the check, so they are read at most this often.
constexpr auto kGroupReadInterval = std::chrono::milliseconds(250);

std::optional<uint64_t> ReadNumber(const std::string& path)
{
    std::ifstream in(path);
    std::string text;
    if (!(in >> text)) {
        return std::nullopt;
    }
    if (text == "max") {
        return std::numeric_limits<uint64_t>::max();
    }
    try {
        return std::stoull(text);
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

// The unified control group this process runs in, as a folder below /sys/fs/cgroup.
std::string GroupFolder()
{
    std::ifstream in("/proc/self/cgroup");
    std::string line;
    while (std::getline(in, line)) {
        if (line.rfind("0::", 0) == 0) {
            return "/sys/fs/cgroup" + (line.size() > 3 && line != "0::/" ? line.substr(3) : std::string());
        }
    }
    return {};
}

std::optional<uint64_t> MemAvailable()
{
    std::ifstream in("/proc/meminfo");
    std::string key;
    uint64_t value = 0;
    std::string unit;
    while (in >> key >> value) {
        std::getline(in, unit);
        if (key == "MemAvailable:") {
            return value * 1024;
        }
    }
    return std::nullopt;
}

std::atomic<uint64_t> g_clients{0};

}  // namespace

void ClientCapacity::Taken()
{
    ++g_clients;
}

void ClientCapacity::Released()
{
    --g_clients;
}

uint64_t ClientCapacity::Budget()
{
    const uint64_t files = OpenFileLimit::Current();
    // An eighth of the descriptors stays with the service: its own files, plugins, and the global
    // sockets' accepts of clients still in their handshake.
    const uint64_t reserve = std::max<uint64_t>(kFilesReserve, files / 8);
    return files > reserve ? (files - reserve) / kFilesPerClient : 0;
}

std::string ClientCapacity::BudgetShortfall()
{
    const uint64_t budget = Budget();
    if (g_clients < budget) {
        return {};
    }
    return "clients: " + std::to_string(g_clients.load()) + " hold brokers, as many as " +
           std::to_string(OpenFileLimit::Current()) + " open files allow";
}

std::string ClientCapacity::Shortfall()
{
    std::string reason = BudgetShortfall();
    if (reason.empty()) {
        reason = FileShortfall();
    }
    if (reason.empty()) {
        reason = GroupShortfall();
    }
    return reason;
}

// Takes the descriptors a client needs and the reserve for a moment: only that says for sure that
// they are there, and it costs a few microseconds.
std::string ClientCapacity::FileShortfall()
{
    constexpr int kNeeded = kFilesPerClient + kFilesReserve;
    static const int probe = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (probe < 0) {
        return {};
    }
    std::array<int, kNeeded> taken{};
    int count = 0;
    while (count < kNeeded) {
        const int fd = ::fcntl(probe, F_DUPFD_CLOEXEC, 0);
        if (fd < 0) {
            break;
        }
        taken[static_cast<size_t>(count++)] = fd;
    }
    for (int i = 0; i < count; ++i) {
        ::close(taken[static_cast<size_t>(i)]);
    }
    if (count == kNeeded) {
        return {};
    }
    return "open files: " + std::to_string(count) + " left of " + std::to_string(OpenFileLimit::Current()) +
           ", a client needs " + std::to_string(kFilesPerClient) + " beside a reserve of " +
           std::to_string(kFilesReserve);
}

std::string ClientCapacity::GroupShortfall()
{
    static std::mutex mutex;
    static std::chrono::steady_clock::time_point readAt;
    static std::string reason;
    static const std::string folder = GroupFolder();
    std::lock_guard<std::mutex> lock(mutex);
    const auto now = std::chrono::steady_clock::now();
    if (readAt.time_since_epoch().count() != 0 && now - readAt < kGroupReadInterval) {
        return reason;
    }
    readAt = now;
    reason.clear();
    if (!folder.empty()) {
        const auto current = ReadNumber(folder + "/pids.current");
        const auto maximum = ReadNumber(folder + "/pids.max");
        if (current && maximum) {
            reason = ThreadShortfall(*current, *maximum);
        }
        const auto used = ReadNumber(folder + "/memory.current");
        const auto limit = ReadNumber(folder + "/memory.max");
        if (reason.empty() && used && limit && *limit != std::numeric_limits<uint64_t>::max()) {
            reason = MemoryShortfall(*limit > *used ? *limit - *used : 0);
        }
    }
    if (reason.empty()) {
        if (const auto available = MemAvailable()) {
            reason = MemoryShortfall(*available);
        }
    }
    return reason;
}

std::string ClientCapacity::ThreadShortfall(uint64_t current, uint64_t maximum)
{
    if (maximum == std::numeric_limits<uint64_t>::max() || current + kThreadsPerClient + kThreadsReserve <= maximum) {
        return {};
    }
    return "threads: " + std::to_string(current) + " of " + std::to_string(maximum) + " in the control group";
}

std::string ClientCapacity::MemoryShortfall(uint64_t available)
{
    if (available >= kMemoryReserveBytes) {
        return {};
    }
    return "memory: " + std::to_string(available >> 20) + " MiB available";
}

}  // namespace VEQ
