#pragma once

#include <stdlib.h>

#include <optional>
#include <string>

// Sets (or, with nullptr, unsets) an environment variable for the lifetime of the
// object, then puts back what was there.
class ScopedEnv {
  public:
    ScopedEnv(const char* name, const char* value) : name_(name) {
        if (const char* old = ::getenv(name)) old_ = old;
        value ? ::setenv(name, value, 1) : ::unsetenv(name);
    }
    ~ScopedEnv() { old_ ? ::setenv(name_.c_str(), old_->c_str(), 1) : ::unsetenv(name_.c_str()); }
    ScopedEnv(const ScopedEnv&) = delete;
    ScopedEnv& operator=(const ScopedEnv&) = delete;

  private:
    std::string name_;
    std::optional<std::string> old_;
};
