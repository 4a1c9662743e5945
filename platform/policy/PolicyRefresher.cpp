#include "platform/policy/PolicyRefresher.h"

#include "platform/bus/VEQNotificationData.h"
#include "platform/bus/VEQPublisherSubscriber.h"
#include "platform/log/Log.h"
#include "platform/policy/PolicyRefreshStatus.h"

#include <exception>

namespace VEQ {
namespace {

constexpr int kConfigTopic = 4;
constexpr int kRefreshRequestState = 24;

}  // namespace

PolicyRefresher::PolicyRefresher(std::shared_ptr<IPolicyRefreshSource> source)
    : source_(std::move(source)), elsewhere_(source_ && source_->RefreshesElsewhere()), status_(PolicyRefreshStatus::kNone)
{
}

PolicyRefresher::~PolicyRefresher()
{
    Stop();
}

bool PolicyRefresher::Start()
{
    std::lock_guard<std::mutex> lifecycle(lifecycleMutex_);
    if (!source_ || !subscription_.empty()) {
        return false;
    }
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = false;
    }
    if (!elsewhere_) {
        thread_ = std::thread(&PolicyRefresher::Run, this);
    }
    subscription_ = VEQPublisherSubscriber::GetInstance()->Subscribe(
        [this](VEQNotificationData& data) {
            if (data.getTopicId() == kConfigTopic && data.getEventState() == kRefreshRequestState) {
                Request();
            }
        },
        false);
    if (subscription_.empty()) {
        g_log.e(L"%s: cannot subscribe to refresh requests", L"VEQ::PolicyRefresher::Start");
        return false;
    }
    return true;
}

void PolicyRefresher::Stop()
{
    std::lock_guard<std::mutex> lifecycle(lifecycleMutex_);
    if (!subscription_.empty()) {
        VEQPublisherSubscriber::GetInstance()->Unsubscribe(subscription_);
        subscription_.clear();
    }
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
        if (status_ == PolicyRefreshStatus::kRunning) {
            status_ = PolicyRefreshStatus::kNone;
        }
    }
    wake_.notify_all();
    if (thread_.joinable()) {
        source_->Cancel();
        thread_.join();
    }
}

void PolicyRefresher::Request()
{
    std::lock_guard<std::mutex> lock(mutex_);
    if (stopping_) {
        return;
    }
    ++requests_;
    status_ = PolicyRefreshStatus::kRunning;
    if (elsewhere_ && !completing_) {
        covered_ = requests_;  // joins the refresh that is awaited
    }
    wake_.notify_all();
}

int32_t PolicyRefresher::Status() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return status_;
}

bool PolicyRefresher::Report(int32_t status)
{
    const wchar_t* function = L"VEQ::PolicyRefresher::Report";
    if (status == PolicyRefreshStatus::kRunning || status == PolicyRefreshStatus::kNone) {
        return false;
    }
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!elsewhere_ || stopping_ || completing_ || status_ != PolicyRefreshStatus::kRunning) {
            return false;
        }
        completing_ = true;  // a second report for the same refresh is refused
    }
    int32_t outcome = PolicyRefreshStatus::kFetchFailed;
    try {
        outcome = source_->Completed(status);
    } catch (const std::exception& error) {
        g_log.e(L"%s: completing the refresh failed: %s", function, error.what());
    }
    std::lock_guard<std::mutex> lock(mutex_);
    completing_ = false;
    if (stopping_) {
        return true;
    }
    if (requests_ == covered_) {
        status_ = outcome;
        g_log.i(L"%s: the policy refresh ended with %d", function, outcome);
    } else {
        covered_ = requests_;  // asked for while completing: the next report answers them
    }
    return true;
}

void PolicyRefresher::Run()
{
    const wchar_t* function = L"VEQ::PolicyRefresher::Run";
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        wake_.wait(lock, [this] { return stopping_ || requests_ > covered_; });
        if (stopping_) {
            return;
        }
        covered_ = requests_;
        lock.unlock();
        g_log.i(L"%s: refreshing the policy", function);
        int32_t outcome = PolicyRefreshStatus::kFetchFailed;
        try {
            outcome = source_->Refresh();
        } catch (const std::exception& error) {
            g_log.e(L"%s: the policy refresh failed: %s", function, error.what());
        } catch (...) {
            g_log.e(L"%s: the policy refresh failed: unknown exception", function);
        }
        if (outcome == PolicyRefreshStatus::kRunning || outcome == PolicyRefreshStatus::kNone) {
            outcome = PolicyRefreshStatus::kFetchFailed;  // a refresh made here has ended
        }
        lock.lock();
        if (requests_ == covered_ && !stopping_) {
            status_ = outcome;
            g_log.i(L"%s: the policy refresh ended with %d", function, outcome);
        }
    }
}

}  // namespace VEQ
