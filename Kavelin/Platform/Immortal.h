#pragma once

#include <new>
#include <utility>

namespace kavelin {

// A process-wide object that is built on first use and never destroyed. The library
// thread may still be drawing or logging while the process exits, so nothing it can
// reach may be torn down by a static destructor; every function-local static the
// library keeps is one of these.
template <typename T>
class Immortal {
  public:
    template <typename... Args>
    explicit Immortal(Args&&... args) {
        ::new (static_cast<void*>(storage_)) T(std::forward<Args>(args)...);
    }
    Immortal(const Immortal&) = delete;
    Immortal& operator=(const Immortal&) = delete;

    T& get() { return *std::launder(reinterpret_cast<T*>(storage_)); }

  private:
    alignas(T) unsigned char storage_[sizeof(T)];
};

}  // namespace kavelin
