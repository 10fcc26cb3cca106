#pragma once

#include <chrono>
#include <map>
#include <string>
#include <vector>

namespace kavelin::test {

// How a child process ended.
struct ChildResult {
    bool timedOut = false;  // still running at the deadline, then killed
    bool exited = false;    // ended by exit or return from main (not by a signal)
    int exitCode = -1;
    int signal = 0;  // the signal that ended it, if any
    double seconds = 0;
    std::chrono::system_clock::time_point ended;  // when it was seen gone
    std::string output;                           // standard output and error, interleaved

    // One line for a failure message.
    std::string describe() const;
};

// Runs `argv` with the current environment plus `env` (an empty value unsets the
// variable), and waits for it at most `timeoutSeconds`.
ChildResult runChild(const std::vector<std::string>& argv,
                     const std::map<std::string, std::string>& env, double timeoutSeconds);

}  // namespace kavelin::test
