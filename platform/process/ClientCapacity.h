#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace VEQ {

// Whether this process can take one more client connection: its descriptors, the threads its
// control group allows, and memory. Checked before a handshake is answered, so that a client is
// either given a broker that will listen or told at once that there is none.
class ClientCapacity {
public:
    // A connection's two listening sockets with their mailboxes and peers, and its wake-ups.
    static constexpr int kFilesPerClient = 12;
    // Kept free for logs, the registry store, plugins and the control socket.
    static constexpr int kFilesReserve = 64;
    static constexpr uint64_t kThreadsPerClient = 3;
    static constexpr uint64_t kThreadsReserve = 32;
    static constexpr uint64_t kMemoryReserveBytes = 32ull << 20;

    // Why one more client cannot be taken now ("clients", "open files", "threads" or "memory", with
    // figures); empty when it can.
    static std::string Shortfall();

    // The clients that hold a broker, across both sides. A broker's descriptors are taken a moment
    // after its handshake is answered, so free descriptors alone would let a burst of handshakes
    // through that together need more than there are; the count bounds what is promised.
    static void Taken();
    static void Released();
    // How many clients the open-file limit has room for.
    static uint64_t Budget();

    // The checks on figures read elsewhere; for the readers and for tests.
    static std::string ThreadShortfall(uint64_t current, uint64_t maximum);
    static std::string MemoryShortfall(uint64_t available);

private:
    static std::string BudgetShortfall();
    static std::string FileShortfall();
    static std::string GroupShortfall();
};

}  // namespace VEQ
