#include "support/XvfbDisplay.h"

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>

extern char** environ;

namespace kavelin::test {

XvfbDisplay::XvfbDisplay() {
    unsetenv("KAVELIN_HEADLESS");
    setenv("KAVELIN_WINDOW_SIZE", "1280x720", 1);
    const char* display = std::getenv("DISPLAY");
    if (display && *display) {
        ok_ = true;
        return;
    }
    // A display number of our own, so parallel test processes do not collide.
    for (int attempt = 0; attempt < 5 && !ok_; ++attempt) {
        const std::string number = std::to_string(90 + (getpid() + attempt * 7) % 60);
        const std::filesystem::path socket = "/tmp/.X11-unix/X" + number;
        if (std::filesystem::exists(socket)) continue;
        std::string name = ":" + number;
        std::string args[] = {"Xvfb", name, "-screen", "0", "1280x720x24", "-nolisten", "tcp"};
        char* argv[] = {args[0].data(), args[1].data(), args[2].data(), args[3].data(),
                        args[4].data(), args[5].data(), args[6].data(), nullptr};
        if (posix_spawnp(&pid_, "Xvfb", nullptr, nullptr, argv, environ) != 0) return;
        for (int i = 0; i < 100 && !std::filesystem::exists(socket); ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        if (std::filesystem::exists(socket)) {
            setenv("DISPLAY", name.c_str(), 1);
            ok_ = true;
        } else {
            kill(pid_, SIGTERM);
            waitpid(pid_, nullptr, 0);
            pid_ = 0;
        }
    }
}

XvfbDisplay::~XvfbDisplay() {
    if (pid_ > 0) {
        kill(pid_, SIGTERM);
        waitpid(pid_, nullptr, 0);
    }
}

}  // namespace kavelin::test
