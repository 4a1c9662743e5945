#pragma once

#include <cstdint>

namespace VEQ {

// The service's limit of open files. Every client connection costs a handful of descriptors, so
// the service runs at its hard limit; the programs it starts get back the soft limit it was
// started with (some use select(2), which breaks on descriptors past 1024).
class OpenFileLimit {
public:
    // Raises the soft limit to the hard one. Call once at start, before any thread exists.
    static void RaiseToHard();
    // The soft limit now in force.
    static uint64_t Current();
    // In a child between fork and exec: puts back the soft limit the service was started with.
    // Only a system call: safe there.
    static void RestoreInChild();
};

}  // namespace VEQ
