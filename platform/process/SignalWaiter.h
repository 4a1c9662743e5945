#pragma once

#include <initializer_list>
#include <string>
#include <vector>

namespace VEQ {

// Turns termination signals into something a thread waits for. Block must run on the main thread
// before any other thread exists, so that every thread inherits the blocked mask and the signals
// are left for Wait.
class SignalWaiter {
public:
    static void Block(std::initializer_list<int> signals);
    // Blocks until one of the blocked signals arrives; returns its number.
    static int Wait();
    // Threads of this process, the caller included (from /proc/self/task), without a sanitizer's own.
    static int ThreadCount();
    // Their names, for a report of what is still running.
    static std::vector<std::string> ThreadNames();
};

}  // namespace VEQ
