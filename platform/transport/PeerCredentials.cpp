#include "platform/transport/PeerCredentials.h"

#include <charconv>
#include <string_view>

namespace Tavrin::Veq::ClientBroker {
namespace {

// Takes the last ":<number>" off text into value.
bool TakeLastNumber(std::string_view& text, uint32_t& value)
{
    const size_t colon = text.rfind(':');
    if (colon == std::string_view::npos) {
        return false;
    }
    const std::string_view digits = text.substr(colon + 1);
    if (digits.empty()) {
        return false;
    }
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
    if (error != std::errc() || end != digits.data() + digits.size()) {
        return false;
    }
    text = text.substr(0, colon);
    return true;
}

}  // namespace

std::optional<PeerCredentials> PeerCredentials::FromPeerAddress(const std::string& address)
{
    std::string_view rest(address);
    PeerCredentials credentials;
    if (!TakeLastNumber(rest, credentials.processId) || !TakeLastNumber(rest, credentials.groupId) ||
        !TakeLastNumber(rest, credentials.userId) || credentials.processId == 0) {
        return std::nullopt;
    }
    return credentials;
}

}  // namespace Tavrin::Veq::ClientBroker
