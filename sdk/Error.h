#pragma once
// What went wrong in a call of the SDK, as a kind that a program can act on and a message that a
// person can: which side, which path, what to try.

#include <string>
#include <utility>

namespace Veq::Sdk {

enum class ErrorCode {
    None,
    NotPublished,      // no registry, or the side's socket id is not published: the service is not there
    Unreachable,       // a socket path is missing or nothing listens on it
    PermissionDenied,  // the socket is there but this user may not connect to it
    NoHandshakeReply,  // the global socket did not answer "ConnectTo-Veq" in time
    Refused,           // the handshake came back without a connection
    BadReply,          // an answer or a published value that does not follow the protocol
    NoReply,           // a request got no result in time; the connection still stands
    ConnectionLost,    // the broker is gone (the service stopped or restarted)
    Closed,            // Close was called while the call was waiting to reconnect
    InvalidCall,       // a call that would wait for the thread it is made on (from inside a handler)
};

class Error {
public:
    Error() = default;
    Error(ErrorCode code, std::string message) : code_(code), message_(std::move(message)) {}

    // True when there is an error.
    explicit operator bool() const { return code_ != ErrorCode::None; }
    ErrorCode Code() const { return code_; }
    const std::string& Message() const { return message_; }

    // The code's name, for logs and tests.
    static const char* Name(ErrorCode code);

private:
    ErrorCode code_ = ErrorCode::None;
    std::string message_;
};

}  // namespace Veq::Sdk
