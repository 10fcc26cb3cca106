#include "support/VirtualMainQueue.h"

#include <cmath>

namespace kavelin {

int64_t VirtualMainQueue::toMicros(double seconds) {
    return std::llround(clampQueueDelay(seconds) * 1e6);
}

void VirtualMainQueue::async(std::function<void()> task) {
    scheduled_.emplace(std::make_pair(nowMicros_, seq_++), makeWorkItem(std::move(task)));
}

void VirtualMainQueue::asyncAfter(double seconds, WorkItemPtr item) {
    scheduled_.emplace(std::make_pair(nowMicros_ + toMicros(seconds), seq_++), std::move(item));
}

void VirtualMainQueue::runUntilIdle() {
    advance(0);
}

void VirtualMainQueue::advance(double seconds) {
    const int64_t target = nowMicros_ + toMicros(seconds);
    while (!scheduled_.empty() && scheduled_.begin()->first.first <= target) {
        auto node = scheduled_.extract(scheduled_.begin());
        if (node.key().first > nowMicros_) nowMicros_ = node.key().first;
        node.mapped()->perform();
    }
    nowMicros_ = target;
}

size_t VirtualMainQueue::pendingCount() const {
    size_t n = 0;
    for (const auto& [key, item] : scheduled_)
        if (!item->isCancelled()) ++n;
    return n;
}

}  // namespace kavelin
