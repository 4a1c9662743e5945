// Many apps at once against veqd as a process. N client processes (this program again, in its
// client mode) open M connections each through the SDK on the elevated side, and each connection
// sends "Get-VeqStatus" once. The bench prints how many connections were served, refused (an
// empty "callbackConnection") or left without an answer, what they cost the service (memory,
// threads, open files, CPU while everything idles), how long one push takes to reach every
// connection, and how long the service takes to let go of everything once the client processes
// are killed; then one verdict line per target. It exits 0 whatever the figures, 1 when the bench
// itself broke.
//
//     scale [--processes N] [--connections M] [--daemon-nofile L]

#include "platform/transport/WireCodec.h"
#include "sdk/AppClient.h"
#include "sdk/ControlClient.h"
#include "sdk/ControlEvent.h"
#include "sdk/DataRoot.h"
#include "tests/support/DaemonProcess.h"
#include "tests/support/ScratchRoot.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <poll.h>
#include <sstream>
#include <stdexcept>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace std::chrono;
using namespace std::chrono_literals;
using Tavrin::Veq::ClientBroker::WireCodec;

namespace {

constexpr int kDefaultProcesses = 20;
constexpr int kDefaultConnections = 50;
// A connection without an answer within this counts as not served, and the bench goes on.
constexpr auto kReplyTimeout = 5s;
// Connections one client process opens at the same time: enough that connections left without
// an answer do not wait for each other one by one, few enough that the handshakes of all the
// processes together stay well within kReplyTimeout.
constexpr int kConnectThreads = 8;
constexpr auto kStartDeadline = 20s;
constexpr long kClientFdsPerConnection = 8;  // a client process's fds, about 7 a connection
constexpr auto kSettleTime = 500ms;  // the service's threads and fds unchanged this long: settled
constexpr auto kSettleDeadline = 5s;
constexpr auto kIdleWindow = 10s;
constexpr int kPushes = 5;
constexpr auto kPushPause = 300ms;
constexpr auto kPushDeadline = 10s;  // for the clients' reports of one push
constexpr auto kPollInterval = 20ms;
constexpr auto kBaselineDeadline = 30s;  // after the SIGKILL
// When the service's threads are shown after the SIGKILL, in seconds: how they go down.
constexpr double kThreadCheckpoints[] = {0.5, 1, 2, 3, 5, 10, 20, 30};
constexpr const char* kCommand = "Get-VeqStatus";
// A package's status reaches every app of every side: one push that the service sends to all.
constexpr int kPackageTopic = 30;
constexpr int kDownloadingState = 311;
constexpr const char* kPushCommand = "Receive-PackageInstallStatus";
constexpr const char* kPackagePrefix = "scale-";
constexpr const char* kFileLimitError = "Too many open files";
// A client process's lines to the bench that carry the first error of each kind.
const std::string kRefusedNote = "note refused ";
const std::string kUnservedNote = "note unserved ";

constexpr double kRssTargetMb = 150;
constexpr double kPushTargetMs = 1000;
constexpr double kIdleCpuTargetPercent = 1;
constexpr double kBaselineTargetSeconds = 3;

struct Failure : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// veqd ended during the run: a finding of the run, not a fault of the bench.
struct ServiceEnded : std::runtime_error {
    using std::runtime_error::runtime_error;
};

struct Options {
    int processes = kDefaultProcesses;
    int connections = kDefaultConnections;
    long daemonNofile = 0;  // 0: veqd inherits this process's limit
    // The client mode, which the bench starts itself in.
    bool client = false;
    std::string root;
    int index = 0;
};

std::optional<Options> Parse(int argc, char** argv)
{
    Options options;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const bool hasValue = i + 1 < argc;
        if (arg == "--client") {
            options.client = true;
        } else if (arg == "--processes" && hasValue) {
            options.processes = std::atoi(argv[++i]);
        } else if (arg == "--connections" && hasValue) {
            options.connections = std::atoi(argv[++i]);
        } else if (arg == "--daemon-nofile" && hasValue) {
            options.daemonNofile = std::atol(argv[++i]);
        } else if (arg == "--root" && hasValue) {
            options.root = argv[++i];
        } else if (arg == "--index" && hasValue) {
            options.index = std::atoi(argv[++i]);
        } else {
            return std::nullopt;
        }
    }
    if (options.processes < 1 || options.connections < 1 || options.daemonNofile < 0 ||
        (options.client && options.root.empty())) {
        return std::nullopt;
    }
    return options;
}

void RaiseOwnFileLimit()
{
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
        limit.rlim_cur = limit.rlim_max;
        ::setrlimit(RLIMIT_NOFILE, &limit);
    }
}

// The rest of line after prefix, when it starts with it.
std::optional<std::string> After(const std::string& line, const std::string& prefix)
{
    return line.rfind(prefix, 0) == 0 ? std::optional<std::string>(line.substr(prefix.size())) : std::nullopt;
}

long long Nanoseconds(steady_clock::time_point at)
{
    return duration_cast<nanoseconds>(at.time_since_epoch()).count();
}

// ---- The client mode: one app process with its connections. ------------------------------------

// The round a push belongs to, from its package id; -1 for any other push.
int PushRound(const Veq::Sdk::AppClient::Notification& notification)
{
    if (notification.command != kPushCommand) {
        return -1;
    }
    std::string error;
    const auto payload = WireCodec::ParseObject(notification.payload, error);
    const std::string id = payload ? (*payload)["packageId"].asString() : "";
    return id.rfind(kPackagePrefix, 0) == 0 ? std::atoi(id.c_str() + std::strlen(kPackagePrefix)) : -1;
}

std::string OneLine(std::string text)
{
    std::replace(text.begin(), text.end(), '\n', ' ');
    return text;
}

// Writes one line to the bench in one write, so that lines never interleave.
void Tell(const std::string& line)
{
    const std::string text = line + "\n";
    if (::write(STDOUT_FILENO, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
        std::_Exit(1);  // the bench is gone
    }
}

class ClientSide {
public:
    ClientSide(const std::string& root, int index, int count)
    {
        for (int i = 0; i < count; ++i) {
            Veq::Sdk::AppClientOptions options;
            options.dataRoot = root;
            options.side = Veq::Sdk::Side::Elevated;
            // One app per process, as apps are: its connections share its id.
            options.extensionId = "Scale.Client" + std::to_string(index);
            options.extensionName = options.extensionId;
            options.timeout = duration_cast<milliseconds>(kReplyTimeout);
            options.autoReconnect = false;
            auto connection = std::make_unique<Connection>();
            connection->client = std::make_unique<Veq::Sdk::AppClient>(options);
            Connection* self = connection.get();
            connection->client->SetPushHandler(
                [this, self](const Veq::Sdk::AppClient::Notification& push) { OnPush(*self, push); });
            connections_.push_back(std::move(connection));
        }
    }

    // Connects everything and tells the bench: "connections SERVED REFUSED UNSERVED", after a
    // "note refused|unserved TEXT" line with the first error of each kind.
    void ConnectAll()
    {
        std::atomic<size_t> next{0};
        std::vector<std::thread> workers;
        for (int t = 0; t < kConnectThreads; ++t) {
            workers.emplace_back([this, &next] {
                for (size_t i = next++; i < connections_.size(); i = next++) {
                    ConnectOne(*connections_[i]);
                }
            });
        }
        for (auto& worker : workers) {
            worker.join();
        }
        if (!firstRefusal_.empty()) {
            Tell(kRefusedNote + OneLine(firstRefusal_));
        }
        if (!firstUnserved_.empty()) {
            Tell(kUnservedNote + OneLine(firstUnserved_));
        }
        Tell("connections " + std::to_string(served_) + " " + std::to_string(refused_) + " " +
             std::to_string(connections_.size() - served_ - refused_));
    }

    // Answers "push ROUND" with "pushed ROUND COUNT LATEST_NS": how many served connections got
    // that round's push and when the last of them did (steady clock, which all processes share).
    void Serve()
    {
        for (std::string line; std::getline(std::cin, line);) {
            int round = -1;
            if (std::sscanf(line.c_str(), "push %d", &round) != 1) {
                continue;
            }
            std::unique_lock<std::mutex> lock(mutex_);
            pushed_.wait_for(lock, kReplyTimeout, [&] { return Reached(round) == served_; });
            long long latest = 0;
            for (const auto& connection : connections_) {
                if (connection->served && connection->round == round) {
                    latest = std::max(latest, Nanoseconds(connection->arrived));
                }
            }
            Tell("pushed " + std::to_string(round) + " " + std::to_string(Reached(round)) + " " +
                 std::to_string(latest));
        }
    }

private:
    struct Connection {
        std::unique_ptr<Veq::Sdk::AppClient> client;
        bool served = false;  // these three guarded by mutex_
        int round = -1;
        steady_clock::time_point arrived;
    };

    void ConnectOne(Connection& connection)
    {
        auto error = connection.client->Connect();
        Veq::Sdk::AppClient::Result result;
        if (!error) {
            error = connection.client->Send(kCommand, "{}", result);
        }
        if (!error && !result.isSuccess) {
            error = {Veq::Sdk::ErrorCode::BadReply, std::string(kCommand) + " failed: " +
                                                        std::to_string(result.message.statusCode) + " " +
                                                        result.message.statusText};
        }
        std::lock_guard<std::mutex> lock(mutex_);
        if (!error) {
            connection.served = true;
            ++served_;
        } else if (error.Code() == Veq::Sdk::ErrorCode::Refused) {
            ++refused_;
            firstRefusal_ = firstRefusal_.empty() ? error.Message() : firstRefusal_;
        } else {
            firstUnserved_ = firstUnserved_.empty() ? error.Message() : firstUnserved_;
        }
    }

    void OnPush(Connection& connection, const Veq::Sdk::AppClient::Notification& push)
    {
        const auto arrived = steady_clock::now();
        const int round = PushRound(push);
        if (round < 0) {
            return;
        }
        std::lock_guard<std::mutex> lock(mutex_);
        connection.round = round;
        connection.arrived = arrived;
        pushed_.notify_all();
    }

    // Called with mutex_ held.
    size_t Reached(int round) const
    {
        return static_cast<size_t>(std::count_if(connections_.begin(), connections_.end(), [round](const auto& c) {
            return c->served && c->round >= round;
        }));
    }

    std::mutex mutex_;
    std::condition_variable pushed_;
    size_t served_ = 0;
    size_t refused_ = 0;
    std::string firstRefusal_;
    std::string firstUnserved_;
    // Last, so that the connections, whose threads call OnPush, go first.
    std::vector<std::unique_ptr<Connection>> connections_;
};

int RunClient(const Options& options)
{
    RaiseOwnFileLimit();
    ClientSide side(options.root, options.index, options.connections);
    side.ConnectAll();
    side.Serve();  // until the bench closes the pipe; normally it kills this process first
    return 0;
}

// ---- What /proc tells of the service. ------------------------------------------------------------

struct ProcessFigures {
    long rssKb = -1;
    long threads = -1;
    long fds = -1;
};

std::string ProcPath(pid_t pid, const char* what)
{
    return "/proc/" + std::to_string(pid) + "/" + what;
}

long StatusField(pid_t pid, const std::string& name)
{
    std::ifstream status(ProcPath(pid, "status"));
    for (std::string line; std::getline(status, line);) {
        if (line.rfind(name + ":", 0) == 0) {
            return std::strtol(line.c_str() + name.size() + 1, nullptr, 10);
        }
    }
    return -1;
}

long OpenFds(pid_t pid)
{
    std::error_code error;
    long count = 0;
    for (std::filesystem::directory_iterator it(ProcPath(pid, "fd"), error), end; !error && it != end;
         it.increment(error)) {
        ++count;
    }
    return error ? -1 : count;
}

// How many of the service's threads have each name.
std::map<std::string, int> ThreadNames(pid_t pid)
{
    std::map<std::string, int> names;
    std::error_code error;
    for (std::filesystem::directory_iterator it(ProcPath(pid, "task"), error), end; !error && it != end;
         it.increment(error)) {
        std::string name;
        std::getline(std::ifstream(it->path() / "comm"), name);
        ++names[name];
    }
    return names;
}

// How many of the service's fds lead to each kind of thing: a file by its path, "socket", "pipe",
// "anon_inode:[eventfd]"...
std::map<std::string, int> FdTargets(pid_t pid)
{
    std::map<std::string, int> targets;
    std::error_code error;
    for (std::filesystem::directory_iterator it(ProcPath(pid, "fd"), error), end; !error && it != end;
         it.increment(error)) {
        std::error_code unreadable;
        std::string target = std::filesystem::read_symlink(it->path(), unreadable).string();
        if (const size_t inode = target.find(":["); inode != std::string::npos && target.rfind("anon_inode", 0) != 0) {
            target.erase(inode);
        }
        ++targets[target];
    }
    return targets;
}

// "name +1, other -2": how the counts now differ from before.
std::string Changes(const std::map<std::string, int>& before, const std::map<std::string, int>& now)
{
    std::map<std::string, int> change;
    for (const auto& [name, count] : now) {
        change[name] += count;
    }
    for (const auto& [name, count] : before) {
        change[name] -= count;
    }
    std::string text;
    for (const auto& [name, count] : change) {
        if (count != 0) {
            text += (text.empty() ? "" : ", ") + name + (count > 0 ? " +" : " ") + std::to_string(count);
        }
    }
    return text.empty() ? "none" : text;
}

// What the service holds, by name, for telling what it kept after the clients went.
struct Holdings {
    std::map<std::string, int> threads;
    std::map<std::string, int> fds;
};

Holdings HoldingsOf(pid_t pid)
{
    return {ThreadNames(pid), FdTargets(pid)};
}

ProcessFigures Measure(pid_t pid)
{
    return {StatusField(pid, "VmRSS"), StatusField(pid, "Threads"), OpenFds(pid)};
}

// utime + stime, in clock ticks: fields 14 and 15, counted after the command's closing parenthesis.
long long CpuTicks(pid_t pid)
{
    std::ifstream file(ProcPath(pid, "stat"));
    const std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    const size_t end = text.rfind(')');
    if (end == std::string::npos) {
        throw Failure("cannot read " + ProcPath(pid, "stat"));
    }
    std::istringstream fields(text.substr(end + 1));
    std::string field;
    long long ticks = 0;
    for (int number = 3; number <= 15 && fields >> field; ++number) {
        ticks += number >= 14 ? std::stoll(field) : 0;
    }
    return ticks;
}

// Not ended: a process that ended stays a zombie until DaemonProcess reaps it.
bool Running(pid_t pid)
{
    std::ifstream file(ProcPath(pid, "stat"));
    const std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    const size_t end = text.rfind(')');
    return end != std::string::npos && end + 2 < text.size() && text[end + 2] != 'Z' && text[end + 2] != 'X';
}

void RequireRunning(pid_t pid, const char* phase)
{
    if (!Running(pid)) {
        throw ServiceEnded(std::string("veqd ended ") + phase);
    }
}

std::string FileLimitOf(pid_t pid)
{
    std::ifstream limits(ProcPath(pid, "limits"));
    for (std::string line; std::getline(limits, line);) {
        if (line.rfind("Max open files", 0) == 0) {
            std::istringstream words(line.substr(std::strlen("Max open files")));
            std::string soft;
            std::string hard;
            words >> soft >> hard;
            return "soft " + soft + ", hard " + hard;
        }
    }
    return "unknown";
}

double Mb(long kb)
{
    return static_cast<double>(kb) / 1024.0;
}

// ---- The service. --------------------------------------------------------------------------------

// veqd is spawned and inherits this process's limits, so a limit this process takes before the
// start is veqd's from its first instruction, before it sizes anything by it (a limit put on it
// after its start would come too late for that). The client processes inherit it too: they need
// about kClientFdsPerConnection for each connection.
std::unique_ptr<VEQ::Test::DaemonProcess> StartDaemon(const std::string& root, long nofile)
{
    if (nofile > 0) {
        const rlimit limit{static_cast<rlim_t>(nofile), static_cast<rlim_t>(nofile)};
        if (::setrlimit(RLIMIT_NOFILE, &limit) != 0) {
            throw Failure("cannot set the open-file limit to " + std::to_string(nofile) + ": " + std::strerror(errno));
        }
    }
    auto daemon = std::make_unique<VEQ::Test::DaemonProcess>(root);
    if (!daemon->Start(kStartDeadline)) {
        throw Failure("veqd did not start:\n" + daemon->Output());
    }
    return daemon;
}

// The service's figures once its threads and fds have stopped changing (it starts some lazily).
ProcessFigures Settled(pid_t pid)
{
    ProcessFigures last = Measure(pid);
    auto stableSince = steady_clock::now();
    const auto until = stableSince + kSettleDeadline;
    while (steady_clock::now() - stableSince < kSettleTime && steady_clock::now() < until) {
        std::this_thread::sleep_for(kPollInterval);
        const ProcessFigures now = Measure(pid);
        if (now.threads != last.threads || now.fds != last.fds) {
            stableSince = steady_clock::now();
        }
        last = now;
    }
    return last;
}

size_t LinesWith(const std::string& folder, const std::string& text)
{
    size_t count = 0;
    std::error_code error;
    for (std::filesystem::recursive_directory_iterator it(folder, error), end; !error && it != end;
         it.increment(error)) {
        std::ifstream file(it->path());
        for (std::string line; std::getline(file, line);) {
            count += line.find(text) != std::string::npos ? 1 : 0;
        }
    }
    return count;
}

// ---- The client processes, seen from the bench. --------------------------------------------------

// This program again in its client mode, its stdin and stdout pipes to the bench.
class ClientProcess {
public:
    ClientProcess(const std::string& root, int index, int connections)
    {
        std::vector<std::string> args = {"/proc/self/exe", "--client", "--root", root, "--index", std::to_string(index),
                                         "--connections", std::to_string(connections)};
        std::vector<char*> argv;
        for (auto& arg : args) {
            argv.push_back(arg.data());
        }
        argv.push_back(nullptr);
        int toClient[2];
        int fromClient[2];
        if (::pipe2(toClient, O_CLOEXEC) != 0 || ::pipe2(fromClient, O_CLOEXEC) != 0) {
            throw Failure(std::string("pipe: ") + std::strerror(errno));
        }
        pid_ = ::fork();
        if (pid_ < 0) {
            throw Failure(std::string("fork: ") + std::strerror(errno));
        }
        if (pid_ == 0) {
            ::signal(SIGPIPE, SIG_DFL);
            if (::dup2(toClient[0], STDIN_FILENO) < 0 || ::dup2(fromClient[1], STDOUT_FILENO) < 0) {
                ::_exit(127);
            }
            ::execv(argv[0], argv.data());
            ::_exit(127);
        }
        ::close(toClient[0]);
        ::close(fromClient[1]);
        in_ = toClient[1];
        out_ = fromClient[0];
    }

    ~ClientProcess()
    {
        Kill();
        ::close(in_);
        ::close(out_);
    }

    ClientProcess(const ClientProcess&) = delete;
    ClientProcess& operator=(const ClientProcess&) = delete;

    // The next line, or nullopt when the process ended or said nothing in time (it is then
    // taken as gone).
    std::optional<std::string> ReadLine(steady_clock::time_point deadline)
    {
        while (alive_) {
            if (const size_t end = buffer_.find('\n'); end != std::string::npos) {
                std::string line = buffer_.substr(0, end);
                buffer_.erase(0, end + 1);
                return line;
            }
            const auto left = duration_cast<milliseconds>(deadline - steady_clock::now()).count();
            pollfd item{out_, POLLIN, 0};
            const int ready = left > 0 ? ::poll(&item, 1, static_cast<int>(left)) : 0;
            if (ready < 0 && errno == EINTR) {
                continue;
            }
            if (ready <= 0) {
                alive_ = false;
                break;
            }
            char chunk[512];
            const ssize_t count = ::read(out_, chunk, sizeof(chunk));
            if (count <= 0) {
                alive_ = count < 0 && errno == EINTR;
                continue;
            }
            buffer_.append(chunk, static_cast<size_t>(count));
        }
        return std::nullopt;
    }

    void WriteLine(const std::string& line)
    {
        const std::string text = line + "\n";
        if (alive_ && ::write(in_, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
            alive_ = false;
        }
    }

    void SendKill()
    {
        if (pid_ > 0) {
            ::kill(pid_, SIGKILL);
        }
    }

    void Kill()
    {
        SendKill();
        if (pid_ > 0) {
            ::waitpid(pid_, nullptr, 0);
            pid_ = -1;
        }
        alive_ = false;
    }

private:
    pid_t pid_ = -1;
    int in_ = -1;
    int out_ = -1;
    bool alive_ = true;
    std::string buffer_;
};

using Clients = std::vector<std::unique_ptr<ClientProcess>>;

// The service starts a few threads and files on first need and keeps them (the reaper of ended
// threads, for one); counted in the baseline's place, they would read as connections not let go.
// So one client process connects once and is killed before the baseline is taken: once the
// service has torn its broker down (its threads and fds below their count with it connected)
// and has been steady since.
ProcessFigures WarmUp(const std::string& root, int index, pid_t pid)
{
    ClientProcess client(root, index, 1);
    const auto until = steady_clock::now() + kStartDeadline;
    while (auto line = client.ReadLine(until)) {
        if (line->rfind("connections ", 0) == 0) {
            break;
        }
    }
    const ProcessFigures connected = Measure(pid);
    client.Kill();
    const auto released = steady_clock::now() + kBaselineDeadline;
    for (ProcessFigures now = Measure(pid);
         (now.threads >= connected.threads || now.fds >= connected.fds) && steady_clock::now() < released;
         now = Measure(pid)) {
        std::this_thread::sleep_for(kPollInterval);
    }
    return Settled(pid);
}

struct Tally {
    long served = 0;
    long refused = 0;
    long unserved = 0;
    std::string firstRefusal;
    std::string firstUnserved;
};

// Reads every client's report of its connections; a client that does not report counts as all
// its connections not served.
Tally CollectConnections(Clients& clients, int connections)
{
    // Connections left without an answer take up to three timeouts (handshake, broker, command).
    const int waves = (connections + kConnectThreads - 1) / kConnectThreads;
    const auto deadline = steady_clock::now() + kStartDeadline + waves * 3 * kReplyTimeout;
    Tally tally;
    for (auto& client : clients) {
        bool reported = false;
        while (auto line = client->ReadLine(deadline)) {
            long served = 0;
            long refused = 0;
            long unserved = 0;
            if (const auto refusal = After(*line, kRefusedNote)) {
                tally.firstRefusal = tally.firstRefusal.empty() ? *refusal : tally.firstRefusal;
            } else if (const auto unanswered = After(*line, kUnservedNote)) {
                tally.firstUnserved = tally.firstUnserved.empty() ? *unanswered : tally.firstUnserved;
            } else if (std::sscanf(line->c_str(), "connections %ld %ld %ld", &served, &refused, &unserved) == 3) {
                tally.served += served;
                tally.refused += refused;
                tally.unserved += unserved;
                reported = true;
                break;
            }
        }
        if (!reported) {
            tally.unserved += connections;
            tally.firstUnserved = tally.firstUnserved.empty() ? "a client process did not report" : tally.firstUnserved;
            client->Kill();
        }
    }
    return tally;
}

double IdleCpuPercent(pid_t pid)
{
    const long long before = CpuTicks(pid);
    const auto start = steady_clock::now();
    std::this_thread::sleep_for(kIdleWindow);
    const long long ticks = CpuTicks(pid) - before;
    const double seconds = duration<double>(steady_clock::now() - start).count();
    return 100.0 * static_cast<double>(ticks) / static_cast<double>(::sysconf(_SC_CLK_TCK)) / seconds;
}

struct PushFigures {
    std::vector<double> millis;  // of each push, until the last served connection had it
    long fewestReached = -1;
};

Veq::Sdk::ControlEvent PackageEvent(int round)
{
    Veq::Sdk::ControlEvent event;
    event.topic = kPackageTopic;
    event.state = kDownloadingState;
    event.payload = std::string(R"({"packageId":")") + kPackagePrefix + std::to_string(round) +
                    R"(","packageType":"app","packageName":"Scale","packageVersion":"1.0",)"
                    R"("installationTrigger":"user"})";
    return event;
}

PushFigures PushToAll(const std::string& root, Clients& clients)
{
    Veq::Sdk::ControlClient control(Veq::Sdk::DataRoot::Resolve(root), duration_cast<milliseconds>(kReplyTimeout));
    PushFigures figures;
    for (int round = 0; round < kPushes; ++round) {
        for (auto& client : clients) {
            client->WriteLine("push " + std::to_string(round));
        }
        const auto start = steady_clock::now();
        Veq::Sdk::ControlClient::Result result;
        if (auto error = control.Publish(PackageEvent(round), result); error || !result.isSuccess) {
            const std::string why = error ? error.Message() : result.message.statusText;
            std::printf("  push %d not published: %s\n", round, why.c_str());
        }
        long reached = 0;
        long long latest = Nanoseconds(start);
        for (auto& client : clients) {
            long count = 0;
            long long at = 0;
            int echoed = -1;
            while (auto line = client->ReadLine(start + kPushDeadline)) {
                if (std::sscanf(line->c_str(), "pushed %d %ld %lld", &echoed, &count, &at) == 3 && echoed == round) {
                    reached += count;
                    latest = std::max(latest, at);
                    break;
                }
            }
        }
        figures.millis.push_back(static_cast<double>(latest - Nanoseconds(start)) / 1e6);
        figures.fewestReached = figures.fewestReached < 0 ? reached : std::min(figures.fewestReached, reached);
        std::this_thread::sleep_for(kPushPause);
    }
    return figures;
}

struct Release {
    std::optional<double> fds;      // seconds from the SIGKILL until the fds were down to the baseline
    std::optional<double> threads;  // the same for the threads
    ProcessFigures last;
    // The threads at each of kThreadCheckpoints, as far as the watch went.
    std::vector<long> threadsAt;

    std::optional<double> Both() const
    {
        return fds && threads ? std::optional<double>(std::max(*fds, *threads)) : std::nullopt;
    }
};

Release BackToBaseline(Clients& clients, pid_t daemon, const ProcessFigures& baseline)
{
    const auto start = steady_clock::now();
    for (auto& client : clients) {
        client->SendKill();
    }
    for (auto& client : clients) {
        client->Kill();
    }
    Release release;
    while (true) {
        RequireRunning(daemon, "after the client processes were killed");
        release.last = Measure(daemon);
        const double elapsed = duration<double>(steady_clock::now() - start).count();
        while (release.threadsAt.size() < std::size(kThreadCheckpoints) &&
               elapsed >= kThreadCheckpoints[release.threadsAt.size()]) {
            release.threadsAt.push_back(release.last.threads);
        }
        if (!release.fds && release.last.fds <= baseline.fds) {
            release.fds = elapsed;
        }
        if (!release.threads && release.last.threads <= baseline.threads) {
            release.threads = elapsed;
        }
        if (release.Both() || steady_clock::now() - start >= kBaselineDeadline) {
            return release;
        }
        std::this_thread::sleep_for(kPollInterval);
    }
}

std::string Seconds(const std::optional<double>& seconds)
{
    char text[64];
    if (seconds) {
        std::snprintf(text, sizeof(text), "%.2f s", *seconds);
    } else {
        std::snprintf(text, sizeof(text), "not within %lld s",
                      static_cast<long long>(duration_cast<std::chrono::seconds>(kBaselineDeadline).count()));
    }
    return text;
}

void Verdict(const std::string& target, bool met, const std::string& figure)
{
    std::printf("verdict: %-36s %s (%s)\n", target.c_str(), met ? "PASS" : "FAIL", figure.c_str());
}

std::string Format(const char* format, double value)
{
    char text[64];
    std::snprintf(text, sizeof(text), format, value);
    return text;
}

// Everything a run measured, for the verdicts.
struct Figures {
    long total = 0;  // connections asked for
    Tally tally;
    ProcessFigures fresh;     // before any app
    ProcessFigures baseline;  // after one came and went
    ProcessFigures loaded;  // with everything connected
    double idleCpuPercent = 0;
    PushFigures pushes;
    Release release;
};

void PrintConnections(const Figures& figures, double seconds)
{
    const Tally& tally = figures.tally;
    std::printf("connections up (served)          %ld of %ld (all reports in %.1f s)\n", tally.served, figures.total,
                seconds);
    std::printf("connections refused              %ld\n", tally.refused);
    std::printf("connections not served           %ld\n", tally.unserved);
    if (!tally.firstRefusal.empty()) {
        std::printf("  first refusal: %s\n", tally.firstRefusal.c_str());
    }
    if (!tally.firstUnserved.empty()) {
        std::printf("  first not served: %s\n", tally.firstUnserved.c_str());
    }
}

void PrintCost(const Figures& figures)
{
    const ProcessFigures& fresh = figures.fresh;
    const ProcessFigures& before = figures.baseline;
    const ProcessFigures& loaded = figures.loaded;
    const double perConnectionKb =
        figures.tally.served > 0
            ? static_cast<double>(loaded.rssKb - before.rssKb) / static_cast<double>(figures.tally.served)
            : 0;
    std::printf("veqd RSS                         baseline %.1f MB, all connected %.1f MB, %.1f KB per served "
                "connection\n",
                Mb(before.rssKb), Mb(loaded.rssKb), perConnectionKb);
    std::printf("veqd threads                     baseline %ld, all connected %ld\n", before.threads, loaded.threads);
    std::printf("veqd open fds                    baseline %ld, all connected %ld\n", before.fds, loaded.fds);
    std::printf("  the baseline is taken after one app came and went; before any app: RSS %.1f MB, threads %ld, "
                "fds %ld\n",
                Mb(fresh.rssKb), fresh.threads, fresh.fds);
}

double Slowest(const PushFigures& pushes)
{
    return *std::max_element(pushes.millis.begin(), pushes.millis.end());
}

void PrintPushes(const Figures& figures)
{
    std::vector<double> sorted = figures.pushes.millis;
    std::sort(sorted.begin(), sorted.end());
    std::printf("push to all connections          median %.1f ms, slowest %.1f ms (%d pushes; fewest reached %ld of "
                "%ld served)\n",
                sorted[sorted.size() / 2], sorted.back(), kPushes, figures.pushes.fewestReached, figures.tally.served);
}

void PrintRelease(const Figures& figures, const Holdings& baseline, pid_t pid)
{
    const Release& release = figures.release;
    std::printf("back to baseline after SIGKILL   fds %s (%ld, baseline %ld), threads %s (%ld, baseline %ld)\n",
                Seconds(release.fds).c_str(), release.last.fds, figures.baseline.fds, Seconds(release.threads).c_str(),
                release.last.threads, figures.baseline.threads);
    std::printf("  threads after the SIGKILL:");
    for (size_t i = 0; i < release.threadsAt.size(); ++i) {
        std::printf(" %g s %ld%s", kThreadCheckpoints[i], release.threadsAt[i],
                    i + 1 < release.threadsAt.size() ? "," : "\n");
    }
    if (release.threadsAt.empty()) {
        std::printf(" back before %g s\n", kThreadCheckpoints[0]);
    }
    if (!release.Both()) {
        const Holdings now = HoldingsOf(pid);
        std::printf("  beyond the baseline: threads %s; fds %s\n", Changes(baseline.threads, now.threads).c_str(),
                    Changes(baseline.fds, now.fds).c_str());
    }
}

void PrintVerdicts(const Options& options, const Figures& figures)
{
    const long served = figures.tally.served;
    Verdict("all " + std::to_string(figures.total) + " served (" + std::to_string(options.processes) + "x" +
                std::to_string(options.connections) + ")",
            served == figures.total, std::to_string(served) + " served");
    const double rssMb = Mb(figures.loaded.rssKb);
    Verdict("RSS <= 150 MB", rssMb <= kRssTargetMb, Format("%.1f MB", rssMb));
    const bool allReached = served > 0 && figures.pushes.fewestReached == served;
    const double slowest = Slowest(figures.pushes);
    Verdict("push to all <= 1 s", allReached && slowest <= kPushTargetMs,
            allReached ? Format("slowest %.1f ms", slowest) : "not every served connection had every push");
    Verdict("idle CPU < 1 % of a core", figures.idleCpuPercent < kIdleCpuTargetPercent,
            Format("%.2f %%", figures.idleCpuPercent));
    const auto released = figures.release.Both();
    Verdict("back to baseline <= 3 s", released && *released <= kBaselineTargetSeconds,
            released ? Format("%.2f s", *released) : Seconds(released));
}

// Connects, measures and kills the clients, and prints what it found; throws ServiceEnded when
// veqd is found gone.
void MeasureRun(const Options& options, const std::string& root, pid_t pid)
{
    Figures figures;
    figures.total = static_cast<long>(options.processes) * options.connections;
    figures.fresh = Settled(pid);
    figures.baseline = WarmUp(root, options.processes, pid);
    const Holdings baselineHoldings = HoldingsOf(pid);

    Clients clients;
    const auto connecting = steady_clock::now();
    for (int i = 0; i < options.processes; ++i) {
        clients.push_back(std::make_unique<ClientProcess>(root, i, options.connections));
    }
    figures.tally = CollectConnections(clients, options.connections);
    const double connectSeconds = duration<double>(steady_clock::now() - connecting).count();
    PrintConnections(figures, connectSeconds);
    RequireRunning(pid, "while the clients connected");
    figures.loaded = Measure(pid);
    PrintCost(figures);
    std::fflush(stdout);

    figures.idleCpuPercent = IdleCpuPercent(pid);
    RequireRunning(pid, "while idle");
    std::printf("veqd idle CPU over %lld s          %.2f %% of a core\n",
                static_cast<long long>(duration_cast<seconds>(kIdleWindow).count()), figures.idleCpuPercent);
    std::fflush(stdout);
    figures.pushes = PushToAll(root, clients);
    RequireRunning(pid, "while pushing");
    PrintPushes(figures);
    std::fflush(stdout);
    figures.release = BackToBaseline(clients, pid, figures.baseline);
    PrintRelease(figures, baselineHoldings, pid);
    std::printf("veqd RSS after                   %.1f MB\n", Mb(Measure(pid).rssKb));
    std::printf("lines with \"%s\" in the service's logs: %zu\n", kFileLimitError,
                LinesWith(root + "/log", kFileLimitError));
    PrintVerdicts(options, figures);
}

void RunBench(const Options& options)
{
    // Made before the service, so that the service has stopped before its files go.
    const VEQ::Test::ScratchRoot scratch("veq-scale");
    const std::string& root = scratch.Path();
    auto daemon = StartDaemon(root, options.daemonNofile);
    const pid_t pid = daemon->Pid();
    ::signal(SIGPIPE, SIG_IGN);  // a client that died must not take the bench with it
    std::printf("veqd pid %d on %s, open-file limit %s; %d client processes x %d connections\n", pid, root.c_str(),
                FileLimitOf(pid).c_str(), options.processes, options.connections);
    if (options.daemonNofile > 0 && options.daemonNofile < kClientFdsPerConnection * options.connections + 64) {
        std::printf("  the client processes have that limit too, too low for %d connections each\n",
                    options.connections);
    }
    std::fflush(stdout);
    try {
        MeasureRun(options, root, pid);
    } catch (const ServiceEnded& ended) {
        std::printf("%s: no verdicts. Its output:\n", ended.what());
        daemon->Stop();
        std::printf("%s\n", daemon->Output().c_str());
        return;
    }
    std::fflush(stdout);
    if (daemon->Stop() != 0) {
        std::printf("veqd did not stop cleanly:\n%s\n", daemon->Output().c_str());
    }
}

}  // namespace

int main(int argc, char** argv)
{
    const auto options = Parse(argc, argv);
    if (!options) {
        std::fprintf(stderr, "usage: scale [--processes N] [--connections M] [--daemon-nofile L]\n");
        return 2;
    }
    if (options->client) {
        return RunClient(*options);
    }
    try {
        RunBench(*options);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "scale: %s\n", error.what());
        return 1;
    }
    return 0;
}
