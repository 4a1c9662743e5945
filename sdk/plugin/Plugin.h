#pragma once
// A thin C++ layer over the plugin ABI (veq_plugin.h), header-only so that a plugin depends on
// nothing of the service's but these two headers and JsonCpp.
//
//     class Hello : public veq::Plugin {
//     public:
//         bool OnStart() override
//         {
//             Json::Value status;
//             return Send("Get-VeqStatus", "{}", status) == VEQ_OK;
//         }
//     };
//     VEQ_DECLARE_PLUGIN(Hello)

#include "veq_plugin.h"

#include <json/json.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

namespace veq {

class Plugin {
public:
    virtual ~Plugin() = default;

    // Called once the host is connected; false refuses the start.
    virtual bool OnStart() { return true; }
    // A push from the service: {"command": ..., "payload": ..., "targetId": ..., "targetName": ...}.
    virtual void OnPush(const Json::Value& /*notification*/) {}
    // A request routed to this plugin (a Message); fill result (a Result) and return true, or
    // return false to refuse it.
    virtual bool OnRequest(const Json::Value& /*message*/, Json::Value& /*result*/) { return false; }
    // "StopPlugin": end the plugin's work. The host exits when this returns.
    virtual void OnStop() {}

    // Sends a command (to the service, or to targetId) and waits for its Result.
    int Send(const std::string& command, const std::string& payload, Json::Value& result,
             const std::string& targetId = {}, uint32_t timeoutMs = 60000) const
    {
        char* text = nullptr;
        const int status = host_->send(host_->host, command.c_str(), payload.c_str(),
                                       targetId.empty() ? nullptr : targetId.c_str(), timeoutMs, &text);
        if (status == VEQ_OK) {
            Parse(text != nullptr ? text : "", result);
            host_->free_text(text);
        }
        return status;
    }
    void Log(int level, const std::string& text) const { host_->log(host_->host, level, text.c_str()); }

    std::string Id() const { return host_->plugin_id; }
    std::string Name() const { return host_->plugin_name; }
    std::string Directory() const { return host_->plugin_directory; }
    bool Elevated() const { return std::strcmp(host_->side, "elevated") == 0; }

    // The entry's work, for VEQ_DECLARE_PLUGIN.
    static int Start(Plugin* plugin, const veq_host_api* host, veq_plugin_callbacks* callbacks)
    {
        plugin->host_ = host;
        if (!plugin->OnStart()) {
            delete plugin;
            return 1;
        }
        callbacks->state = plugin;
        callbacks->on_push = &Plugin::PushThunk;
        callbacks->on_request = &Plugin::RequestThunk;
        callbacks->on_stop = &Plugin::StopThunk;
        return 0;
    }

private:
    static bool Parse(const std::string& text, Json::Value& value)
    {
        Json::CharReaderBuilder builder;
        const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
        try {
            return reader->parse(text.data(), text.data() + text.size(), &value, nullptr);
        } catch (const Json::Exception&) {
            return false;
        }
    }
    static void PushThunk(void* state, const char* json)
    {
        Json::Value notification;
        if (Parse(json != nullptr ? json : "", notification)) {
            static_cast<Plugin*>(state)->OnPush(notification);
        }
    }
    static char* RequestThunk(void* state, const char* json)
    {
        Json::Value message;
        Json::Value result;
        if (!Parse(json != nullptr ? json : "", message) || !static_cast<Plugin*>(state)->OnRequest(message, result)) {
            return nullptr;
        }
        Json::StreamWriterBuilder writer;
        writer["indentation"] = "";
        const std::string text = Json::writeString(writer, result);
        char* copy = static_cast<char*>(std::malloc(text.size() + 1));
        if (copy != nullptr) {
            std::memcpy(copy, text.c_str(), text.size() + 1);
        }
        return copy;
    }
    static void StopThunk(void* state)
    {
        auto* plugin = static_cast<Plugin*>(state);
        plugin->OnStop();
        delete plugin;
    }

    const veq_host_api* host_ = nullptr;
};

}  // namespace veq

// Defines the plugin's entry for a class derived from veq::Plugin with a default constructor.
#define VEQ_DECLARE_PLUGIN(PluginClass)                                                                 \
    extern "C" VEQ_PLUGIN_EXPORT int veq_plugin_start(const veq_host_api* host,                         \
                                                      veq_plugin_callbacks* callbacks)                  \
    {                                                                                                   \
        try {                                                                                           \
            return ::veq::Plugin::Start(new PluginClass(), host, callbacks);                            \
        } catch (...) {                                                                                 \
            return 1;                                                                                   \
        }                                                                                               \
    }
