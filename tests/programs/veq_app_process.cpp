// An app in a process of its own, for tests that end it abruptly. Connects to the service as ID on
// SIDE, sends each COMMAND in turn with the payload {}, prints each reply's payload on a line of
// its own, then "ready", and stays connected until it is killed. Commands routed to it are
// answered with success and the payload {"answeredBy": ID}.
// Exit: 2 usage, 3 cannot connect, 4 a command got no reply.

#include "sdk/AppClient.h"

#include <cstdio>
#include <string>
#include <unistd.h>

int main(int argc, char** argv)
{
    if (argc < 4) {
        std::fprintf(stderr, "usage: %s ROOT user|elevated ID [COMMAND...]\n", argv[0]);
        return 2;
    }
    Veq::Sdk::AppClientOptions options;
    options.dataRoot = argv[1];
    options.side = std::string(argv[2]) == "elevated" ? Veq::Sdk::Side::Elevated : Veq::Sdk::Side::User;
    options.extensionId = argv[3];
    options.extensionName = argv[3];
    options.timeout = std::chrono::seconds(45);
    Veq::Sdk::AppClient client(options);
    const std::string id = argv[3];
    client.SetRequestHandler([id](const Veq::Sdk::AppClient::Message& request) {
        Veq::Sdk::AppClient::Result result;
        result.isSuccess = true;
        result.message = request;
        result.message.notification.payload = "{\"answeredBy\":\"" + id + "\"}";
        return result;
    });
    if (auto error = client.Connect()) {
        std::fprintf(stderr, "%s\n", error.Message().c_str());
        return 3;
    }
    for (int n = 4; n < argc; ++n) {
        Veq::Sdk::AppClient::Result result;
        if (auto error = client.Send(argv[n], "{}", result)) {
            std::fprintf(stderr, "%s: %s\n", argv[n], error.Message().c_str());
            return 4;
        }
        std::printf("%s\n", result.message.notification.payload.c_str());
    }
    std::printf("ready\n");
    std::fflush(stdout);
    while (true) {
        ::pause();
    }
}
