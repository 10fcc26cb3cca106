#pragma once

#include <sys/types.h>

namespace kavelin::test {

// A private X server for window tests: started only when there is no DISPLAY,
// and set up so the library picks its window presenter (KAVELIN_HEADLESS unset,
// a 1280x720 window). Stops the server it started when destroyed.
class XvfbDisplay {
  public:
    XvfbDisplay();
    ~XvfbDisplay();
    XvfbDisplay(const XvfbDisplay&) = delete;
    XvfbDisplay& operator=(const XvfbDisplay&) = delete;

    bool ok() const { return ok_; }

  private:
    pid_t pid_ = 0;
    bool ok_ = false;
};

}  // namespace kavelin::test
