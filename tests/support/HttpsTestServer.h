#pragma once
// A real HTTPS server for one test, on 127.0.0.1 and a free port, with a certificate of a
// TestCa and, when asked, client certificates required (mutual TLS). Each path answers as the
// test scripted it: status, fields, body, a delay, a trickle, or no answer at all. Every request
// that got through the handshake is recorded. One request per connection. Stops in its
// destructor, also while a connection hangs or trickles.

#include "tests/support/TestCa.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

struct ssl_ctx_st;

namespace VEQ::Test {

class HttpsTestServer {
public:
    using Fields = std::vector<std::pair<std::string, std::string>>;

    struct Reply {
        int status = 200;
        Fields headers;
        std::string body;
        std::chrono::milliseconds delay{0};  // before the first byte of the answer
        int64_t trickleBytesPerSecond = 0;   // 0: the body at once
        bool hang = false;                   // read the request, never answer
        bool chunked = false;                // no Content-Length: the body in chunks
    };

    struct Request {
        std::string method;
        std::string path;
        std::string query;  // after '?', without it
        Fields headers;
        std::string body;
        std::string clientCommonName;  // of the client certificate; empty without one

        // The first field of that name, letter case ignored; empty when absent.
        std::string Header(const std::string& name) const;
        size_t HeaderCount(const std::string& name) const;
    };

    // clientCaFile not empty: a client must present a certificate that chains to it.
    explicit HttpsTestServer(const TestCa::TlsIdentity& identity, const std::string& clientCaFile = "");
    ~HttpsTestServer();
    HttpsTestServer(const HttpsTestServer&) = delete;
    HttpsTestServer& operator=(const HttpsTestServer&) = delete;

    int Port() const { return port_; }
    // "https://127.0.0.1:<port>" followed by pathAndQuery.
    std::string Url(const std::string& pathAndQuery) const;
    // Paths not scripted answer 404.
    void Script(const std::string& path, Reply reply);
    std::vector<Request> Requests() const;
    int FailedHandshakes() const { return failedHandshakes_; }

private:
    void Accept();
    void Serve(int fd);
    bool ReadRequest(void* ssl, Request& request);
    void Answer(void* ssl, const Request& request);
    // Sleeps up to duration; false when the server is stopping.
    bool Pause(std::chrono::milliseconds duration);

    ssl_ctx_st* context_ = nullptr;
    int listener_ = -1;
    int wake_ = -1;
    int port_ = 0;
    std::atomic<bool> stopping_{false};
    std::atomic<int> failedHandshakes_{0};

    mutable std::mutex mutex_;  // guards what follows
    std::condition_variable stopped_;
    std::map<std::string, Reply> replies_;
    std::vector<Request> requests_;
    std::set<int> open_;
    std::vector<std::thread> connections_;

    std::thread acceptor_;
};

}  // namespace VEQ::Test
