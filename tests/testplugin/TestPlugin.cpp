// A plugin for the tests, written against the plugin ABI alone. What it does depends on its name:
//   ...Refuses...  its entry refuses to start;
//   ...Crashes...  its entry crashes;
//   ...Stubborn... ignores "StopPlugin" (its stop takes two minutes);
//   ...Forks...    starts a child that sleeps, and writes its pid to <side>.child;
//   ...Bench...    asks one command and renames "<side>.first" into its folder when it is answered;
//   ...Eager...    asks "Get-VeqStatus" from its entry itself and writes the answer to <side>.eager;
//   ...Caller...   waits for <side>.calls in its folder, sends each "<target> <command> [payload]"
//                  line to that target ("-": the service) and writes the results to <side>.answers;
//   ...DiagKeep..., ...DiagDrop..., ...DiagText..., ...DiagSlow... answer "Get-Diagnostics" with
//                  success and "TRUE" as a string, success and false, a payload that is no JSON,
//                  and success after 31 s;
//   anything else  asks the service who it is, and writes what it learnt to
//                  <its folder>/<side>.report, and "<side>.stopped" there when it stops.
// Every plugin appends each push it receives, one line of JSON, to <its folder>/<side>.pushes, and
// answers each request routed to it with the request itself as its reply's message (so the sender
// sees what the plugin received), a failure when the command's name holds "Fail".

#include "sdk/plugin/veq_plugin.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <sys/resource.h>
#include <unistd.h>

namespace {

struct State {
    const veq_host_api* host = nullptr;
    std::string folder;
    std::string side;
    bool stubborn = false;
    std::thread worker;
};

void Append(const std::string& path, const std::string& line)
{
    if (FILE* file = std::fopen(path.c_str(), "a")) {
        std::fprintf(file, "%s\n", line.c_str());
        std::fclose(file);
    }
}

std::string Ask(const veq_host_api* host, const char* command, const std::string& payload)
{
    char* result = nullptr;
    const int status = host->send(host->host, command, payload.c_str(), nullptr, 10000, &result);
    std::string text = status == VEQ_OK && result != nullptr ? result : "send failed: " + std::to_string(status);
    host->free_text(result);
    return text;
}

std::string Send(const veq_host_api* host, const std::string& command, const std::string& target,
                 const std::string& payload)
{
    char* result = nullptr;
    const int status = host->send(host->host, command.c_str(), payload.c_str(),
                                  target == "-" ? nullptr : target.c_str(), 20000, &result);
    std::string text = status == VEQ_OK && result != nullptr ? result : "send failed: " + std::to_string(status);
    host->free_text(result);
    return text;
}

// Waits for the test's list of calls ("<target> <command> [payload]" per line, target "-" for the
// service itself, payload {"from":"plugin"} when none is given), makes them, and writes their
// results, one line each, to <side>.answers.
void Call(State* state)
{
    const std::string calls = state->folder + "/" + state->side + ".calls";
    for (int waited = 0; waited < 1500 && access(calls.c_str(), R_OK) != 0; ++waited) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    const std::string answers = state->folder + "/" + state->side + ".answers";
    if (FILE* file = std::fopen(calls.c_str(), "r")) {
        char line[4096];
        while (std::fgets(line, sizeof line, file) != nullptr) {
            std::string text(line);
            text.erase(text.find_last_not_of("\r\n") + 1);
            const size_t first = text.find(' ');
            if (first == std::string::npos) {
                continue;
            }
            const size_t second = text.find(' ', first + 1);
            const std::string target = text.substr(0, first);
            const std::string command = text.substr(first + 1, second == std::string::npos ? std::string::npos
                                                                                             : second - first - 1);
            const std::string payload = second == std::string::npos ? R"({"from":"plugin"})" : text.substr(second + 1);
            Append(answers + ".part", Send(state->host, command, target, payload));
        }
        std::fclose(file);
    }
    std::rename((answers + ".part").c_str(), answers.c_str());
}

void Work(State* state)
{
    if (std::string(state->host->plugin_name).find("Caller") != std::string::npos) {
        Call(state);
        return;
    }
    if (std::string(state->host->plugin_name).find("Bench") != std::string::npos) {
        const std::string first = state->folder + "/" + state->side + ".first";
        Append(first + ".part", Ask(state->host, "Get-PluginHostContext", "{}"));
        std::rename((first + ".part").c_str(), first.c_str());
        return;
    }
    const std::string report = state->folder + "/" + state->side + ".report";
    const std::string id = state->host->plugin_id;
    Append(report + ".part", Ask(state->host, "Get-PluginHostContext", "{}"));
    Append(report + ".part", Ask(state->host, "Get-PluginDetails", "{\"id\":\"" + id + "\"}"));
    Append(report + ".part", Ask(state->host, "Get-DecryptedData", "{}"));
    std::rename((report + ".part").c_str(), report.c_str());
    state->host->log(state->host->host, VEQ_LOG_INFO, "test plugin reported");
}

void OnPush(void* raw, const char* notification)
{
    const auto* state = static_cast<State*>(raw);
    Append(state->folder + "/" + state->side + ".pushes", notification);
}

char* Copy(const std::string& text)
{
    char* copy = static_cast<char*>(std::malloc(text.size() + 1));
    if (copy != nullptr) {
        std::memcpy(copy, text.c_str(), text.size() + 1);
    }
    return copy;
}

// Its answer to "Get-Diagnostics", by its name; empty for plugins that echo it as any request.
std::string DiagnosticsPayload(const std::string& name)
{
    if (name.find("DiagKeep") != std::string::npos) {
        return R"({\"status\":\"SUCCESS\",\"deleteFilesOnUpload\":\"TRUE\"})";
    }
    if (name.find("DiagDrop") != std::string::npos) {
        return R"({\"status\":\"success\",\"deleteFilesOnUpload\":false})";
    }
    if (name.find("DiagText") != std::string::npos) {
        return "collected, no JSON here";
    }
    if (name.find("DiagSlow") != std::string::npos) {
        std::this_thread::sleep_for(std::chrono::seconds(31));
        return R"({\"status\":\"success\"})";
    }
    return "";
}

char* OnRequest(void* raw, const char* message)
{
    const auto* state = static_cast<State*>(raw);
    const std::string request = message;
    if (request.find("\"Get-Diagnostics\"") != std::string::npos) {
        const std::string payload = DiagnosticsPayload(state->host->plugin_name);
        if (!payload.empty()) {
            return Copy(R"({"isSuccess":true,"message":{"notification":{"command":"Get-Diagnostics","payload":")" +
                        payload + "\"}}}");
        }
    }
    const bool fail = request.find("Fail") != std::string::npos;
    return Copy(std::string("{\"isSuccess\":") + (fail ? "false" : "true") + ",\"message\":" + request + "}");
}

void OnStop(void* raw)
{
    auto* state = static_cast<State*>(raw);
    if (state->worker.joinable()) {
        state->worker.join();
    }
    if (state->stubborn) {
        std::this_thread::sleep_for(std::chrono::minutes(2));
    }
    Append(state->folder + "/" + state->side + ".stopped", "stopped");
    delete state;
}

}  // namespace

extern "C" VEQ_PLUGIN_EXPORT int veq_plugin_start(const veq_host_api* host, veq_plugin_callbacks* callbacks)
{
    const std::string name = host->plugin_name;
    if (name.find("Eager") != std::string::npos) {
        Append(std::string(host->plugin_directory) + "/" + host->side + ".eager", Ask(host, "Get-VeqStatus", "{}"));
    }
    if (name.find("Refuses") != std::string::npos) {
        return 7;
    }
    if (name.find("Crashes") != std::string::npos) {
        const rlimit noCore{0, 0};
        setrlimit(RLIMIT_CORE, &noCore);  // a test's crash leaves no core file behind
        std::abort();
    }
    if (name.find("Forks") != std::string::npos) {
        const pid_t child = fork();
        if (child == 0) {
            execl("/bin/sleep", "sleep", "300", static_cast<char*>(nullptr));
            _exit(127);
        }
        Append(std::string(host->plugin_directory) + "/" + host->side + ".child", std::to_string(child));
    }
    auto* state = new State();
    state->host = host;
    state->folder = host->plugin_directory;
    state->side = host->side;
    state->stubborn = name.find("Stubborn") != std::string::npos;
    state->worker = std::thread(Work, state);
    callbacks->state = state;
    callbacks->on_push = OnPush;
    callbacks->on_request = OnRequest;
    callbacks->on_stop = OnStop;
    return 0;
}
