#pragma once
// The options that come before the subcommand: where the service is and who is asking.

#include "sdk/AppClientOptions.h"

#include <chrono>
#include <string>

namespace CLI {
class App;
}

namespace Veq::Tools {

struct CommonOptions {
    static constexpr const char* kDefaultId = "veqctl";

    std::string root;
    std::string side = "user";
    std::string id = kDefaultId;
    std::string name = kDefaultId;
    double timeoutSeconds = 10;

    void Register(CLI::App& app);
    std::chrono::milliseconds Timeout() const;
    Sdk::AppClientOptions ClientOptions() const;
};

}  // namespace Veq::Tools
