#include "platform/transport/WakeSignal.h"

#include <cstdint>
#include <sys/eventfd.h>
#include <system_error>
#include <unistd.h>

namespace Tavrin::Veq::ClientBroker {

WakeSignal::WakeSignal() : fd_(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC))
{
    if (fd_ < 0) {
        throw std::system_error(errno, std::generic_category(), "eventfd");
    }
}

WakeSignal::~WakeSignal()
{
    ::close(fd_);
}

void WakeSignal::Raise()
{
    const uint64_t one = 1;
    // A full counter already means "wake up"; nothing is lost when the write fails.
    [[maybe_unused]] auto written = ::write(fd_, &one, sizeof(one));
}

void WakeSignal::Clear()
{
    uint64_t value = 0;
    [[maybe_unused]] auto read = ::read(fd_, &value, sizeof(value));
}

}  // namespace Tavrin::Veq::ClientBroker
