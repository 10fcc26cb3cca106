#include "support/ChildProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <thread>

extern char** environ;

namespace kavelin::test {

std::string ChildResult::describe() const {
    if (timedOut) return "hung (killed after " + std::to_string(seconds) + " s)";
    if (!exited)
        return "killed by signal " + std::to_string(signal) + " (" + strsignal(signal) + ")";
    return "exit code " + std::to_string(exitCode) + " after " + std::to_string(seconds) + " s";
}

ChildResult runChild(const std::vector<std::string>& argv,
                     const std::map<std::string, std::string>& env, double timeoutSeconds) {
    ChildResult result;
    std::map<std::string, std::string> merged;
    for (char** e = environ; *e; ++e) {
        const char* eq = std::strchr(*e, '=');
        if (eq) merged[std::string(*e, static_cast<size_t>(eq - *e))] = eq + 1;
    }
    for (const auto& [name, value] : env) {
        if (value.empty())
            merged.erase(name);
        else
            merged[name] = value;
    }
    std::vector<std::string> envText;
    for (const auto& [name, value] : merged) envText.push_back(name + "=" + value);
    std::vector<char*> envp, args;
    for (auto& e : envText) envp.push_back(e.data());
    envp.push_back(nullptr);
    std::vector<std::string> argText = argv;
    for (auto& a : argText) args.push_back(a.data());
    args.push_back(nullptr);

    // A file rather than a pipe: a chatty child never blocks on a full pipe.
    char outPath[] = "/tmp/kavelin-child-XXXXXX";
    const int out = mkstemp(outPath);
    if (out < 0) return result;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, out, STDERR_FILENO);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    pid_t pid = 0;
    const auto start = std::chrono::steady_clock::now();
    const int spawned = posix_spawn(&pid, args[0], &actions, nullptr, args.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    close(out);
    if (spawned == 0) {
        int status = 0;
        for (;;) {
            const pid_t done = waitpid(pid, &status, WNOHANG);
            result.seconds =
                std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
            if (done == pid) break;
            if (result.seconds > timeoutSeconds) {
                result.timedOut = true;
                kill(pid, SIGKILL);
                waitpid(pid, &status, 0);
                break;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        result.ended = std::chrono::system_clock::now();
        if (!result.timedOut) {
            result.exited = WIFEXITED(status);
            result.exitCode = result.exited ? WEXITSTATUS(status) : -1;
            result.signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
        }
    } else {
        result.output = std::string("could not start ") + argv[0] + ": " + std::strerror(spawned);
    }
    std::ifstream in(outPath, std::ios::binary);
    result.output +=
        std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    std::filesystem::remove(outPath);
    return result;
}

}  // namespace kavelin::test
