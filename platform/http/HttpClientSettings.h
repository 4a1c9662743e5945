#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace VEQ {

// How the service's HTTP client reaches the back end (the "http" section of the host
// configuration, docs/http.md). The defaults end every exchange well inside the 58 seconds that
// a broker waits for a command.
struct HttpClientSettings {
    // Mutual TLS (authType 1): the device's certificate and key (PEM) and the CA bundle that the
    // server must chain to (empty: the system's trust store). http.clientCert, http.clientKey,
    // http.caFile.
    std::string clientCert;
    std::string clientKey;
    std::string caFile;
    // Server-verified TLS (authType 0): the CA bundle that the server must chain to; empty: the
    // system's trust store. http.publicCaFile.
    std::string publicCaFile;
    // An HTTP proxy ("http://host:port"); empty: connect directly, whatever the environment says.
    // http.proxy.
    std::string proxy;

    // Name resolution, TCP and TLS handshake together.
    std::chrono::milliseconds connectTimeout{10000};
    // The whole exchange; never more than kMaxTotalTimeout.
    std::chrono::milliseconds totalTimeout{50000};
    // An exchange that moves fewer than lowSpeedBytesPerSecond for lowSpeedTime is ended: a
    // server that trickles or stalls is given up early. 0 bytes: no such limit.
    int64_t lowSpeedBytesPerSecond = 1024;
    std::chrono::seconds lowSpeedTime{20};
    // The largest body kept in memory, and the largest written to a response file. A longer
    // body ends the exchange with status 0 and CURLE_FILESIZE_EXCEEDED.
    int64_t maxBodyBytes = 16 * 1024 * 1024;
    int64_t maxFileBytes = 64 * 1024 * 1024;

    // A broker gives a command 58 seconds; the handler needs a few after the exchange.
    static constexpr std::chrono::milliseconds kMaxTotalTimeout{55000};
};

}  // namespace VEQ
