#include "platform/service/ServiceStatus.h"

#include "platform/string/String.h"

#include <systemd/sd-bus.h>

#include <cstdlib>
#include <memory>

namespace VEQ {
namespace {

constexpr const char* kSystemd = "org.freedesktop.systemd1";
// A bus that does not answer soon is as good as a service that does not run: the gate is asked
// while a client waits.
constexpr uint64_t kBusTimeoutMicroseconds = 2'000'000;

struct BusDeleter {
    void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
};
struct MessageDeleter {
    void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};

}  // namespace

ServiceStatus* ServiceStatus::GetInstance()
{
    static ServiceStatus* instance = new ServiceStatus();
    return instance;
}

void ServiceStatus::SetSettings(const Settings& settings)
{
    std::lock_guard<std::mutex> lock(mutex_);
    settings_ = settings;
}

ServiceStatus::Settings ServiceStatus::GetSettings()
{
    std::lock_guard<std::mutex> lock(mutex_);
    return settings_;
}

bool ServiceStatus::IsServiceRunning(const std::wstring& serviceName, std::string* activeState)
{
    const std::string unit = GetSettings().unit;
    std::string state;
    if (unit == kAlways || unit == kNever) {
        state = unit;
    } else {
        state = UnitActiveState(unit.empty() ? String::UTF16ToUTF8(serviceName) + ".service" : unit);
    }
    if (activeState != nullptr) {
        *activeState = state;
    }
    return state == kAlways || state == "active" || state == "reloading";
}

std::string ServiceStatus::UnitActiveState(const std::string& unit)
{
    sd_bus* opened = nullptr;
    if (unit.empty() || sd_bus_open_system(&opened) < 0) {
        return {};
    }
    const std::unique_ptr<sd_bus, BusDeleter> bus(opened);
    sd_bus_set_method_call_timeout(bus.get(), kBusTimeoutMicroseconds);

    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message* received = nullptr;
    // GetUnit, not LoadUnit: a unit that systemd has not loaded is not running, and asking must
    // not load it.
    const int called = sd_bus_call_method(bus.get(), kSystemd, "/org/freedesktop/systemd1",
                                          "org.freedesktop.systemd1.Manager", "GetUnit", &error, &received, "s",
                                          unit.c_str());
    const std::unique_ptr<sd_bus_message, MessageDeleter> reply(received);
    std::string state;
    const char* path = nullptr;
    if (called >= 0 && sd_bus_message_read(reply.get(), "o", &path) >= 0 && path != nullptr) {
        char* value = nullptr;
        if (sd_bus_get_property_string(bus.get(), kSystemd, path, "org.freedesktop.systemd1.Unit", "ActiveState",
                                       &error, &value) >= 0 &&
            value != nullptr) {
            state = value;
        }
        std::free(value);
    }
    sd_bus_error_free(&error);
    return state;
}

}  // namespace VEQ
