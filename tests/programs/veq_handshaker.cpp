// Introduces itself on a global socket, as a process of its own, and does what its steps say:
//   connect:N      N handshakes; prints each private path on a line, or "refused"
//   close-first    sends "Close-Connection" to the first private path it was given, then waits
//                  until that broker's socket file is gone; prints "closed"
//   retry-connect  one handshake, repeated for up to 5 s until accepted; prints the path or "refused"
//   hold           prints "ready" and stays until killed
// With --claim PID before the steps, the handshakes claim PID instead of its own.
// Exit: 2 usage, 3 cannot connect, 4 no reply.

#include "platform/transport/ClientConnection.h"
#include "platform/transport/WireCodec.h"

#include <json/json.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace Tavrin::Veq::ClientBroker;
using namespace std::chrono_literals;

namespace {

int g_handshakes = 0;

// The private path, "" when refused, nullopt when no reply came.
std::optional<std::string> Handshake(ClientConnection& global, long claimed)
{
    Message message;
    message.guid = "handshake-" + std::to_string(++g_handshakes);
    message.notification.command = "ConnectTo-Veq";
    message.notification.payload = R"({"extensionId":"handshaker","sdkVersion":"1","clientProcessId":)" +
                                   std::to_string(claimed) + "}";
    auto reply = global.Send(message, 5s);
    if (!reply) {
        return std::nullopt;
    }
    Json::Value payload;
    Json::Reader().parse(reply->message.notification.payload, payload);
    return payload["callbackConnection"].asString();
}


bool SocketGone(const std::string& path)
{
    struct stat status {};
    return ::stat(path.c_str(), &status) != 0 || !S_ISSOCK(status.st_mode);
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc < 3) {
        std::fprintf(stderr, "usage: %s GLOBAL_SOCKET [--claim PID] STEP...\n", argv[0]);
        return 2;
    }
    ClientConnection global;
    if (!global.ConnectRequestsOnly(argv[1], 5s)) {
        std::fprintf(stderr, "%s\n", global.LastError().c_str());
        return 3;
    }
    long claimed = ::getpid();
    std::vector<std::string> accepted;
    for (int n = 2; n < argc; ++n) {
        const std::string step = argv[n];
        if (step == "--claim" && n + 1 < argc) {
            claimed = std::strtol(argv[++n], nullptr, 10);
        } else if (step.rfind("connect:", 0) == 0) {
            for (int i = std::atoi(step.c_str() + 8); i > 0; --i) {
                const auto path = Handshake(global, claimed);
                if (!path) {
                    return 4;
                }
                std::printf("%s\n", path->empty() ? "refused" : path->c_str());
                if (!path->empty()) {
                    accepted.push_back(*path);
                }
            }
        } else if (step == "close-first" && !accepted.empty()) {
            ClientConnection closing;
            if (!closing.ConnectRequestsOnly(accepted.front(), 5s) ||
                !closing.SendRaw({R"({"guid":"bye","notification":{"command":"Close-Connection"}})"})) {
                return 3;
            }
            const auto until = std::chrono::steady_clock::now() + 5s;
            while (!SocketGone(accepted.front()) && std::chrono::steady_clock::now() < until) {
                std::this_thread::sleep_for(20ms);
            }
            std::printf("%s\n", SocketGone(accepted.front()) ? "closed" : "still there");
        } else if (step == "retry-connect") {
            std::string path;
            const auto until = std::chrono::steady_clock::now() + 5s;
            do {
                const auto reply = Handshake(global, claimed);
                if (!reply) {
                    return 4;
                }
                path = *reply;
                if (path.empty()) {
                    std::this_thread::sleep_for(100ms);
                }
            } while (path.empty() && std::chrono::steady_clock::now() < until);
            std::printf("%s\n", path.empty() ? "refused" : path.c_str());
        } else if (step == "hold") {
            std::printf("ready\n");
            std::fflush(stdout);
            ::pause();
        } else {
            std::fprintf(stderr, "unknown step %s\n", step.c_str());
            return 2;
        }
        std::fflush(stdout);
    }
    return 0;
}
