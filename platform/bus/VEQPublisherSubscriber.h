#pragma once
// The service's in-process event bus.
//
// Notify calls every subscriber synchronously on the publisher's thread, in subscription order,
// each with the same record. No lock is held while a callback runs, so a callback may Notify,
// Subscribe or Unsubscribe, and several threads may Notify at once.
//
// Unsubscribe is the owner's last word: once it returns, the callback is not running on any other
// thread and will never be entered again, so the owner may destroy itself right after. Called
// from inside the callback itself it does not wait for that call. Two callbacks that unsubscribe
// each other from inside themselves on two threads at once would wait for each other: don't.

#include "platform/bus/VEQNotificationData.h"

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace VEQ {

class VEQPublisherSubscriber {
public:
    using Callback = std::function<void(VEQNotificationData&)>;

    static VEQPublisherSubscriber* GetInstance();

    // A new unique id for the subscription, empty when callback is empty. flag is kept with the
    // subscription for its owner's sake and changes nothing in delivery.
    std::wstring Subscribe(Callback callback, bool flag);
    // False for an id that is not subscribed (any more); nothing is waited for then.
    bool Unsubscribe(const std::wstring& id);
    // Delivers data to those subscribed when the call starts. source names the publisher in the debug log.
    void Notify(VEQNotificationData& data, const std::wstring& source);

    VEQPublisherSubscriber(const VEQPublisherSubscriber&) = delete;
    VEQPublisherSubscriber& operator=(const VEQPublisherSubscriber&) = delete;

private:
    struct Subscription;

    VEQPublisherSubscriber() = default;
    ~VEQPublisherSubscriber() = default;

    bool Enter(Subscription& subscription);
    void Leave(Subscription& subscription);

    std::mutex mutex_;                  // guards subscriptions_ and the call state of each
    std::condition_variable callEnded_;
    std::vector<std::shared_ptr<Subscription>> subscriptions_;
};

}  // namespace VEQ
