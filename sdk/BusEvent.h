#pragma once

#include "sdk/ControlEvent.h"

#include <cstdint>

namespace Veq::Sdk {

// One event of the service's bus as a monitor sees it ("Bus-Event", sdk/ControlProtocol.h).
struct BusEvent {
    // 1 for the first event since the service's control socket started, one more for each next
    // one: a gap means events were lost on the way, a smaller number that the service restarted.
    uint64_t sequence = 0;
    ControlEvent event;
    int publishFlag = 0;  // the record's publish flag as its publisher set it; 0 unless set
};

}  // namespace Veq::Sdk
