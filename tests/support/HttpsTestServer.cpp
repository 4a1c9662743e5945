#include "tests/support/HttpsTestServer.h"

#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <csignal>
#include <netinet/in.h>
#include <poll.h>
#include <stdexcept>
#include <strings.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

namespace VEQ::Test {
namespace {

constexpr size_t kMaxHead = 64 * 1024;
constexpr size_t kMaxBody = 16 * 1024 * 1024;

void Check(bool done, const std::string& what)
{
    if (!done) {
        throw std::runtime_error("HTTPS test server: " + what + " failed");
    }
}

std::string Trim(const std::string& text)
{
    const size_t first = text.find_first_not_of(" \t");
    return first == std::string::npos ? std::string() : text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

const char* ReasonPhrase(int status)
{
    switch (status) {
    case 200: return "OK";
    case 201: return "Created";
    case 204: return "No Content";
    case 301: return "Moved Permanently";
    case 302: return "Found";
    case 304: return "Not Modified";
    case 400: return "Bad Request";
    case 403: return "Forbidden";
    case 404: return "Not Found";
    case 500: return "Internal Server Error";
    default: return "Status";
    }
}

bool WriteAll(SSL* ssl, const std::string& data)
{
    size_t done = 0;
    while (done < data.size()) {
        size_t written = 0;
        if (SSL_write_ex(ssl, data.data() + done, data.size() - done, &written) != 1) {
            return false;
        }
        done += written;
    }
    return true;
}

std::string ChunkOf(const std::string& piece)
{
    char size[32];
    std::snprintf(size, sizeof(size), "%zx\r\n", piece.size());
    return size + piece + "\r\n";
}

}  // namespace

std::string HttpsTestServer::Request::Header(const std::string& name) const
{
    for (const auto& [key, value] : headers) {
        if (::strcasecmp(key.c_str(), name.c_str()) == 0) {
            return value;
        }
    }
    return {};
}

size_t HttpsTestServer::Request::HeaderCount(const std::string& name) const
{
    return static_cast<size_t>(std::count_if(headers.begin(), headers.end(), [&](const auto& field) {
        return ::strcasecmp(field.first.c_str(), name.c_str()) == 0;
    }));
}

HttpsTestServer::HttpsTestServer(const TestCa::TlsIdentity& identity, const std::string& clientCaFile)
{
    context_ = SSL_CTX_new(TLS_server_method());
    Check(context_ != nullptr, "TLS context");
    Check(SSL_CTX_use_certificate_chain_file(context_, identity.certFile.c_str()) == 1 &&
              SSL_CTX_use_PrivateKey_file(context_, identity.keyFile.c_str(), SSL_FILETYPE_PEM) == 1,
          "loading the server certificate");
    if (!clientCaFile.empty()) {
        Check(SSL_CTX_load_verify_locations(context_, clientCaFile.c_str(), nullptr) == 1, "loading the client CA");
        SSL_CTX_set_client_CA_list(context_, SSL_load_client_CA_file(clientCaFile.c_str()));
        SSL_CTX_set_verify(context_, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
    }
    listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    wake_ = ::eventfd(0, EFD_CLOEXEC);
    Check(listener_ >= 0 && wake_ >= 0, "socket");
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    Check(::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0 && ::listen(listener_, 16) == 0 &&
              ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length) == 0,
          "listening");
    port_ = ntohs(address.sin_port);
    acceptor_ = std::thread([this] { Accept(); });
}

HttpsTestServer::~HttpsTestServer()
{
    stopping_ = true;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        for (int fd : open_) {
            ::shutdown(fd, SHUT_RDWR);
        }
    }
    stopped_.notify_all();
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t woken = ::write(wake_, &one, sizeof(one));
    if (acceptor_.joinable()) {
        acceptor_.join();
    }
    // No thread is added once the acceptor has ended.
    for (std::thread& connection : connections_) {
        connection.join();
    }
    ::close(listener_);
    ::close(wake_);
    SSL_CTX_free(context_);
}

std::string HttpsTestServer::Url(const std::string& pathAndQuery) const
{
    return "https://127.0.0.1:" + std::to_string(port_) + pathAndQuery;
}

void HttpsTestServer::Script(const std::string& path, Reply reply)
{
    std::lock_guard<std::mutex> lock(mutex_);
    replies_[path] = std::move(reply);
}

std::vector<HttpsTestServer::Request> HttpsTestServer::Requests() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return requests_;
}

void HttpsTestServer::Accept()
{
    while (!stopping_) {
        pollfd fds[2] = {{listener_, POLLIN, 0}, {wake_, POLLIN, 0}};
        if (::poll(fds, 2, -1) < 0) {
            if (errno == EINTR) {
                continue;
            }
            return;
        }
        if ((fds[1].revents & POLLIN) != 0) {
            return;
        }
        const int fd = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) {
            continue;
        }
        std::lock_guard<std::mutex> lock(mutex_);
        if (stopping_) {
            ::close(fd);
            return;
        }
        open_.insert(fd);
        connections_.emplace_back([this, fd] { Serve(fd); });
    }
}

void HttpsTestServer::Serve(int fd)
{
    // A client that went away must not end the test process with SIGPIPE.
    sigset_t pipe;
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipe, nullptr);

    SSL* ssl = SSL_new(context_);
    if (ssl != nullptr && SSL_set_fd(ssl, fd) == 1 && SSL_accept(ssl) == 1) {
        Request request;
        if (ReadRequest(ssl, request)) {
            Answer(ssl, request);
        }
        SSL_shutdown(ssl);
    } else {
        ++failedHandshakes_;
    }
    ERR_clear_error();
    SSL_free(ssl);
    std::lock_guard<std::mutex> lock(mutex_);
    open_.erase(fd);
    ::close(fd);
}

bool HttpsTestServer::ReadRequest(void* handle, Request& request)
{
    SSL* ssl = static_cast<SSL*>(handle);
    std::string data;
    char buffer[16 * 1024];
    size_t headEnd = std::string::npos;
    const auto readMore = [&] {
        size_t got = 0;
        if (SSL_read_ex(ssl, buffer, sizeof(buffer), &got) != 1) {
            return false;
        }
        data.append(buffer, got);
        return true;
    };
    while ((headEnd = data.find("\r\n\r\n")) == std::string::npos) {
        if (data.size() > kMaxHead || !readMore()) {
            return false;
        }
    }
    const std::string head = data.substr(0, headEnd);
    size_t lineEnd = head.find("\r\n");
    const std::string requestLine = head.substr(0, lineEnd);
    const size_t space = requestLine.find(' ');
    const size_t secondSpace = requestLine.find(' ', space + 1);
    if (space == std::string::npos || secondSpace == std::string::npos) {
        return false;
    }
    request.method = requestLine.substr(0, space);
    const std::string target = requestLine.substr(space + 1, secondSpace - space - 1);
    const size_t question = target.find('?');
    request.path = target.substr(0, question);
    request.query = question == std::string::npos ? std::string() : target.substr(question + 1);
    while (lineEnd != std::string::npos) {
        const size_t start = lineEnd + 2;
        lineEnd = head.find("\r\n", start);
        const std::string line = head.substr(start, lineEnd == std::string::npos ? std::string::npos : lineEnd - start);
        const size_t colon = line.find(':');
        if (colon != std::string::npos) {
            request.headers.emplace_back(line.substr(0, colon), Trim(line.substr(colon + 1)));
        }
    }
    const std::string declared = request.Header("Content-Length");
    const size_t length = declared.empty() ? 0 : std::stoul(declared);
    if (length > kMaxBody) {
        return false;
    }
    data.erase(0, headEnd + 4);
    while (data.size() < length) {
        if (!readMore()) {
            return false;
        }
    }
    request.body = data.substr(0, length);
    if (X509* peer = SSL_get1_peer_certificate(ssl)) {
        char name[256] = {};
        X509_NAME_get_text_by_NID(X509_get_subject_name(peer), NID_commonName, name, sizeof(name));
        request.clientCommonName = name;
        X509_free(peer);
    }
    std::lock_guard<std::mutex> lock(mutex_);
    requests_.push_back(request);
    return true;
}

bool HttpsTestServer::Pause(std::chrono::milliseconds duration)
{
    std::unique_lock<std::mutex> lock(mutex_);
    return !stopped_.wait_for(lock, duration, [this] { return stopping_.load(); });
}

void HttpsTestServer::Answer(void* handle, const Request& request)
{
    SSL* ssl = static_cast<SSL*>(handle);
    Reply reply;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        const auto found = replies_.find(request.path);
        if (found != replies_.end()) {
            reply = found->second;
        } else {
            reply.status = 404;
            reply.body = "not scripted";
        }
    }
    if (reply.hang) {
        std::unique_lock<std::mutex> lock(mutex_);
        stopped_.wait(lock, [this] { return stopping_.load(); });
        return;
    }
    if (reply.delay.count() > 0 && !Pause(reply.delay)) {
        return;
    }
    std::string head = "HTTP/1.1 " + std::to_string(reply.status) + " " + ReasonPhrase(reply.status) + "\r\n";
    for (const auto& [name, value] : reply.headers) {
        head += name + ": " + value + "\r\n";
    }
    head += reply.chunked ? "Transfer-Encoding: chunked\r\n" : "Content-Length: " + std::to_string(reply.body.size()) + "\r\n";
    head += "Connection: close\r\n\r\n";
    if (!WriteAll(ssl, head) || request.method == "HEAD") {
        return;
    }
    // A trickle goes out in tenths of a second's worth.
    const size_t piece = reply.trickleBytesPerSecond > 0
                             ? std::max<size_t>(1, static_cast<size_t>(reply.trickleBytesPerSecond / 10))
                             : std::max<size_t>(1, reply.body.size());
    for (size_t offset = 0; offset < reply.body.size(); offset += piece) {
        const std::string part = reply.body.substr(offset, piece);
        if (!WriteAll(ssl, reply.chunked ? ChunkOf(part) : part)) {
            return;
        }
        if (reply.trickleBytesPerSecond > 0 && !Pause(std::chrono::milliseconds(100))) {
            return;
        }
    }
    if (reply.chunked) {
        WriteAll(ssl, "0\r\n\r\n");
    }
}

}  // namespace VEQ::Test
