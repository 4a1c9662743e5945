#pragma once

#include <cstdint>

namespace Tavrin::Veq::ClientBroker {

// The kind of client: an app that connects on its own, or a plugin that the service launches.
enum class ExtensionType : int32_t {
    None = 0,
    App = 1,
    Plugin = 2,
    Both = 3,
};

}  // namespace Tavrin::Veq::ClientBroker
