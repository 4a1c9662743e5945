#pragma once
// A real mosquitto for one test: its own configuration and directory, listening on 127.0.0.1 on a
// free port, stopped when the object goes, even when the test fails. It can be stopped and started
// again on the same port, to play a broker that goes away and comes back.

#include "tests/support/BackgroundProcess.h"

#include <chrono>
#include <memory>
#include <string>

namespace VEQ::Test {

class MosquittoBroker {
public:
    static constexpr const char* kProgram = "/usr/sbin/mosquitto";

    MosquittoBroker();
    ~MosquittoBroker();
    MosquittoBroker(const MosquittoBroker&) = delete;
    MosquittoBroker& operator=(const MosquittoBroker&) = delete;

    static bool Available();

    // Starts it and waits until it accepts connections. The first start picks the port; later
    // ones reuse it. False, with Output(), when it does not come up.
    bool Start(std::chrono::milliseconds deadline = std::chrono::seconds(10));
    bool Stop();
    bool Running();
    int Port() const { return port_; }
    std::string Output();

    // A port on 127.0.0.1 where nothing listens (for a broker that is not there at all).
    static int UnusedPort();

private:
    bool StartOn(int port, std::chrono::milliseconds deadline);
    static bool Accepts(int port);

    std::string directory_;
    int port_ = 0;
    std::unique_ptr<BackgroundProcess> process_;
    std::string lastOutput_;
};

}  // namespace VEQ::Test
