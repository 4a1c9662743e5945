#pragma once

#include <zmq.hpp>

#include <string>
#include <sys/types.h>

namespace Tavrin::Veq::ClientBroker {

// Binds ZeroMQ sockets to socket files.
class SocketFile {
public:
    // Binds socket at path with the given file mode. The socket is bound under a temporary name in the
    // same folder, given its mode, and renamed over path, so that the file appears atomically with its
    // final permissions and so that ZeroMQ, which removes its bound file when the socket closes, never
    // removes a file that a later endpoint has bound at the same path. 0 or an errno value.
    static int Bind(zmq::socket_t& socket, const std::string& path, mode_t mode);

    // The mode that a new socket at path takes: that of the placeholder file already there (made
    // with the side's permissions before the endpoint starts), else private to the service's user.
    static mode_t ModeFor(const std::string& path);

    // A plain connect probe, to tell a client precisely why a path cannot be reached. 0 or errno.
    static int Probe(const std::string& path);
};

}  // namespace Tavrin::Veq::ClientBroker
