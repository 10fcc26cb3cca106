#pragma once

#include <atomic>
#include <functional>
#include <memory>

namespace kavelin {

// A cancellable unit of delayed work. Cancelling releases the block at once, so
// whatever it captured does not outlive the cancellation.
class WorkItem {
  public:
    explicit WorkItem(std::function<void()> block) : block_(std::move(block)) {}

    void cancel() {
        cancelled_.store(true);
        // Only the owning queue's thread runs or cancels items, so this is race-free.
        block_ = nullptr;
    }
    bool isCancelled() const { return cancelled_.load(); }

    void perform() {
        if (isCancelled() || !block_) return;
        auto block = std::move(block_);
        block_ = nullptr;
        block();
    }

  private:
    std::function<void()> block_;
    std::atomic<bool> cancelled_{false};
};

using WorkItemPtr = std::shared_ptr<WorkItem>;

inline WorkItemPtr makeWorkItem(std::function<void()> block) {
    return std::make_shared<WorkItem>(std::move(block));
}

}  // namespace kavelin
