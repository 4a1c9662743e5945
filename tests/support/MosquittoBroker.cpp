#include "tests/support/MosquittoBroker.h"

#include <arpa/inet.h>
#include <filesystem>
#include <fstream>
#include <netinet/in.h>
#include <stdexcept>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace VEQ::Test {
namespace {

sockaddr_in Loopback(int port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

}  // namespace

MosquittoBroker::MosquittoBroker()
{
    std::string pattern = "/tmp/veq-mosquitto-XXXXXX";
    if (::mkdtemp(pattern.data()) == nullptr) {
        throw std::runtime_error("mkdtemp failed");
    }
    directory_ = pattern;
}

MosquittoBroker::~MosquittoBroker()
{
    process_.reset();
    std::error_code error;
    std::filesystem::remove_all(directory_, error);
}

bool MosquittoBroker::Available()
{
    return ::access(kProgram, X_OK) == 0;
}

int MosquittoBroker::UnusedPort()
{
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = Loopback(0);
    socklen_t length = sizeof(address);
    int port = 0;
    if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0 &&
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
        port = ntohs(address.sin_port);
    }
    ::close(fd);
    return port;
}

bool MosquittoBroker::Start(std::chrono::milliseconds deadline)
{
    if (port_ != 0) {
        return StartOn(port_, deadline);
    }
    // Another process may take a free port between our look and mosquitto's bind: try another.
    for (int attempt = 0; attempt < 5; ++attempt) {
        if (StartOn(UnusedPort(), deadline)) {
            return true;
        }
    }
    return false;
}

bool MosquittoBroker::StartOn(int port, std::chrono::milliseconds deadline)
{
    const std::string config = directory_ + "/mosquitto.conf";
    std::ofstream(config) << "listener " << port << " 127.0.0.1\n"
                          << "allow_anonymous true\n"
                          << "persistence false\n"
                          << "log_dest stdout\n"
                          << "log_type error\nlog_type warning\nlog_type notice\nlog_type information\n";
    process_ = std::make_unique<BackgroundProcess>(std::vector<std::string>{kProgram, "-c", config});
    if (!process_->Start()) {
        return false;
    }
    const auto until = std::chrono::steady_clock::now() + deadline;
    while (std::chrono::steady_clock::now() < until) {
        if (!process_->Running()) {
            break;  // could not listen there
        }
        if (Accepts(port)) {
            port_ = port;
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    lastOutput_ = process_->Output();
    process_.reset();
    return false;
}

bool MosquittoBroker::Accepts(int port)
{
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return false;
    }
    const sockaddr_in address = Loopback(port);
    const bool connected = ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
    ::close(fd);
    return connected;
}

bool MosquittoBroker::Stop()
{
    if (!process_) {
        return false;
    }
    lastOutput_ = process_->Output();
    const int code = process_->Stop();
    process_.reset();
    return code == 0;
}

bool MosquittoBroker::Running()
{
    return process_ && process_->Running();
}

std::string MosquittoBroker::Output()
{
    return process_ ? process_->Output() : lastOutput_;
}

}  // namespace VEQ::Test
