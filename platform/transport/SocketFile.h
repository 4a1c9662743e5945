#pragma once

#include <zmq.hpp>

#include <string>
#include <sys/types.h>

namespace Tavrin::Veq::ClientBroker {

// Binds ZeroMQ sockets to socket files. Files that are not yet or no longer an endpoint's live in a
// private staging folder: ".staging" (0700) beside the folder that holds the path, on the same file
// system, below a parent only the service may write to; the path's own folder when that cannot be had.
class SocketFile {
public:
    // Which file a bind made, so that a later clean-up touches that file and no other.
    struct Identity {
        dev_t device = 0;
        ino_t inode = 0;
    };

    // Binds socket at path with the given file mode. The socket is bound under a temporary name in the
    // staging folder, given its mode, and renamed over path, so that the file appears atomically with its
    // final permissions and so that ZeroMQ, which removes its bound file when the socket closes, never
    // removes a file that a later endpoint has bound at the same path. 0 or an errno value; on success
    // bound, when given, names the file made.
    static int Bind(zmq::socket_t& socket, const std::string& path, mode_t mode, Identity* bound = nullptr);

    // Keeps the placeholder file at path under a hidden name in the staging folder, before a bind
    // replaces it, so that Retire can put it back. The hidden name, or "" when path holds no plain file.
    static std::string KeepPlaceholder(const std::string& path);
    static void DropPlaceholder(const std::string& kept);

    // Replaces the socket file at path, if it is still the one bound names, by the kept placeholder
    // (or, without one, a new plain file) of the same mode. ZeroMQ closes a listener later, on its
    // own thread; until then a client could still connect to the closing socket and lose what it
    // sends. After this, clients are refused at once, and the next endpoint on the path finds the
    // side's permissions as they were.
    static void Retire(const std::string& path, const Identity& bound, const std::string& kept);

    // The mode that a new socket at path takes: that of the placeholder file already there (made
    // with the side's permissions before the endpoint starts), else private to the service's user.
    static mode_t ModeFor(const std::string& path);

    // A plain connect probe, to tell a client precisely why a path cannot be reached. 0 or errno.
    static int Probe(const std::string& path);
};

}  // namespace Tavrin::Veq::ClientBroker
