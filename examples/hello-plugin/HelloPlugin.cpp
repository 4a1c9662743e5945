// The smallest useful plugin: it asks the service for its status when it starts, logs it, and
// answers "Get-Greeting" when a client routes that command to it.

#include <veq/Plugin.h>

class HelloPlugin : public veq::Plugin {
public:
    bool OnStart() override
    {
        Json::Value result;
        if (Send("Get-VeqStatus", "{}", result) == VEQ_OK && result["isSuccess"].asBool()) {
            Log(VEQ_LOG_INFO, "service status: " + result["message"]["notification"]["payload"].asString());
        }
        return true;
    }

    bool OnRequest(const Json::Value& message, Json::Value& result) override
    {
        if (message["notification"]["command"].asString() != "Get-Greeting") {
            return false;
        }
        result["isSuccess"] = true;
        result["message"]["guid"] = message["guid"];
        result["message"]["notification"]["command"] = "Receive-Greeting";
        result["message"]["notification"]["payload"] = "{\"greeting\":\"Hello from " + Name() + "\"}";
        return true;
    }

    void OnStop() override { Log(VEQ_LOG_INFO, "stopping"); }
};

VEQ_DECLARE_PLUGIN(HelloPlugin)
