// Connects to a broker socket, sends one command and prints the result as one JSON line.
// Tests run it as another user. Exit: 0 result printed, 3 cannot connect, 4 no reply, 2 usage.

#include "platform/transport/ClientConnection.h"
#include "platform/transport/WireCodec.h"

#include <cstdio>
#include <cstdlib>
#include <string>

using namespace Tavrin::Veq::ClientBroker;

int main(int argc, char** argv)
{
    if (argc < 3) {
        std::fprintf(stderr, "usage: %s SOCKET COMMAND [PAYLOAD]\n", argv[0]);
        return 2;
    }
    ClientConnection connection;
    if (!connection.Connect(argv[1], std::chrono::seconds(5))) {
        std::fprintf(stderr, "%s\n", connection.LastError().c_str());
        return 3;
    }
    Message message;
    message.guid = "test-client-guid";
    message.notification.command = argv[2];
    message.notification.payload = argc > 3 ? argv[3] : "{}";
    // VEQ_TEST_CLIENT_WAIT_MS shortens the wait for tests that expect no reply.
    const char* wait = std::getenv("VEQ_TEST_CLIENT_WAIT_MS");
    auto result = connection.Send(message, wait != nullptr ? std::chrono::milliseconds(std::atol(wait))
                                                           : std::chrono::milliseconds(10000));
    if (!result) {
        std::fprintf(stderr, "no reply\n");
        return 4;
    }
    std::printf("%s\n", WireCodec::EncodeResult(*result).c_str());
    return 0;
}
