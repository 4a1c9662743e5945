#include "platform/bus/VEQPublisherSubscriber.h"

#include "platform/log/Log.h"
#include "platform/util/CGuid.h"

#include <algorithm>
#include <thread>

namespace VEQ {

struct VEQPublisherSubscriber::Subscription {
    std::wstring id;
    Callback callback;
    bool flag = false;
    bool active = true;
    // One entry per call in progress, so Unsubscribe can tell its own thread's call from others.
    std::vector<std::thread::id> callers;
};

VEQPublisherSubscriber* VEQPublisherSubscriber::GetInstance()
{
    // Never destroyed: publishers and subscribers may still use the bus while statics go at exit.
    static VEQPublisherSubscriber* const instance = new VEQPublisherSubscriber();
    return instance;
}

std::wstring VEQPublisherSubscriber::Subscribe(Callback callback, bool flag)
{
    if (!callback) {
        return std::wstring();
    }
    auto subscription = std::make_shared<Subscription>();
    subscription->id = Utility::CGuid::NewGuid(true);
    subscription->callback = std::move(callback);
    subscription->flag = flag;
    std::lock_guard<std::mutex> lock(mutex_);
    subscriptions_.push_back(subscription);
    return subscription->id;
}

bool VEQPublisherSubscriber::Unsubscribe(const std::wstring& id)
{
    std::unique_lock<std::mutex> lock(mutex_);
    const auto found = std::find_if(subscriptions_.begin(), subscriptions_.end(),
                                    [&](const auto& subscription) { return subscription->id == id; });
    if (found == subscriptions_.end()) {
        return false;
    }
    const std::shared_ptr<Subscription> subscription = *found;
    subscriptions_.erase(found);
    subscription->active = false;
    const std::thread::id self = std::this_thread::get_id();
    callEnded_.wait(lock, [&] {
        return std::all_of(subscription->callers.begin(), subscription->callers.end(),
                           [&](std::thread::id caller) { return caller == self; });
    });
    return true;
}

bool VEQPublisherSubscriber::Enter(Subscription& subscription)
{
    std::lock_guard<std::mutex> lock(mutex_);
    if (!subscription.active) {
        return false;
    }
    subscription.callers.push_back(std::this_thread::get_id());
    return true;
}

void VEQPublisherSubscriber::Leave(Subscription& subscription)
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        auto& callers = subscription.callers;
        callers.erase(std::find(callers.begin(), callers.end(), std::this_thread::get_id()));
    }
    callEnded_.notify_all();
}

void VEQPublisherSubscriber::Notify(VEQNotificationData& data, const std::wstring& source)
{
    std::vector<std::shared_ptr<Subscription>> recipients;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        recipients = subscriptions_;
    }
    g_log.d(L"%s: topic %d, state %d from %s to %u subscribers", L"VEQ::VEQPublisherSubscriber::Notify",
            data.getTopicId(), data.getEventState(), source, recipients.size());
    for (const auto& subscription : recipients) {
        if (!Enter(*subscription)) {
            continue;  // unsubscribed since the delivery began
        }
        // A subscriber's failure is its own: it is logged and the others still get the event, so
        // no subscriber can take the service down through the bus.
        try {
            subscription->callback(data);
        } catch (const std::exception& error) {
            g_log.e(L"%s: subscriber %s failed: %s", L"VEQ::VEQPublisherSubscriber::Notify", subscription->id,
                    error.what());
        } catch (...) {
            g_log.e(L"%s: subscriber %s failed with an unknown exception", L"VEQ::VEQPublisherSubscriber::Notify",
                    subscription->id);
        }
        Leave(*subscription);
    }
}

}  // namespace VEQ
