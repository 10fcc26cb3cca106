#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <type_traits>
#include <utility>
#include <vector>

namespace kavelin {

// An object whose published properties announce every assignment. Views
// subscribe to mark themselves dirty; tests subscribe to watch state change.
class ObservableObject {
  public:
    using Observer = std::function<void()>;

    // Keep the returned handle alive for as long as the observer should be called.
    class Subscription {
      public:
        Subscription() = default;
        explicit Subscription(std::function<void()> cancel) : cancel_(std::move(cancel)) {}
        Subscription(Subscription&& o) noexcept : cancel_(std::exchange(o.cancel_, nullptr)) {}
        Subscription& operator=(Subscription&& o) noexcept {
            if (this != &o) {
                reset();
                cancel_ = std::exchange(o.cancel_, nullptr);
            }
            return *this;
        }
        Subscription(const Subscription&) = delete;
        Subscription& operator=(const Subscription&) = delete;
        ~Subscription() { reset(); }
        void reset() {
            if (cancel_) std::exchange(cancel_, nullptr)();
        }

      private:
        std::function<void()> cancel_;
    };

    ObservableObject() : observers_(std::make_shared<Observers>()) {}
    ObservableObject(const ObservableObject&) = delete;
    ObservableObject& operator=(const ObservableObject&) = delete;
    virtual ~ObservableObject() = default;

    [[nodiscard]] Subscription onChange(Observer observer) {
        const uint64_t id = observers_->next++;
        observers_->list.emplace_back(id, std::move(observer));
        std::weak_ptr<Observers> weak = observers_;
        return Subscription([weak, id] {
            if (auto o = weak.lock())
                std::erase_if(o->list, [id](const auto& entry) { return entry.first == id; });
        });
    }

    // Called by every published property after it was assigned.
    void notifyChange() {
        // Copy: an observer may subscribe or unsubscribe while being called.
        auto snapshot = observers_->list;
        for (auto& [id, fn] : snapshot) fn();
    }

  private:
    struct Observers {
        uint64_t next = 0;
        std::vector<std::pair<uint64_t, Observer>> list;
    };
    std::shared_ptr<Observers> observers_;
};

// A property that notifies its owner on every assignment, equal value or not.
// Naming an `Owner` class makes it read-only to everyone else: only that class
// may assign it.
template <typename T, typename Owner = void>
class Published {
  public:
    Published(ObservableObject* owner, T initial) : owner_(owner), value_(std::move(initial)) {}
    Published(const Published&) = delete;
    Published& operator=(const Published&) = delete;

    Published& operator=(T value) requires std::is_void_v<Owner> {
        return assign(std::move(value));
    }
    const T& get() const { return value_; }
    operator const T&() const { return value_; }
    const T* operator->() const { return &value_; }

  private:
    friend Owner;  // ignored when Owner is void

    Published& operator=(T value) requires(!std::is_void_v<Owner>) {
        return assign(std::move(value));
    }
    Published& assign(T value) {
        value_ = std::move(value);
        owner_->notifyChange();
        return *this;
    }

    ObservableObject* owner_;
    T value_;
};

}  // namespace kavelin
