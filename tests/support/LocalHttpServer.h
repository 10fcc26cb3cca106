#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

namespace kavelin::test {

// A small HTTP/1.1 server on 127.0.0.1 with an ephemeral port. It serves files below
// `root` (with byte ranges, as media players ask for them) and answers chosen paths
// with canned responses so tests can provoke failures: an error status, garbage, a
// slow answer. A thread per connection; the destructor stops everything, answers
// still waiting out their delay included.
class LocalHttpServer {
  public:
    struct Response {
        int status = 200;
        std::optional<std::string> body{};  // unset: the file at the path below the root
        std::string contentType = "text/plain";
        double delaySeconds = 0;  // waited before anything is sent back
        // Promises the whole body, sends only this many bytes of it, then closes.
        std::optional<size_t> dropAfterBytes{};
    };

    explicit LocalHttpServer(std::filesystem::path root = {});
    ~LocalHttpServer();
    LocalHttpServer(const LocalHttpServer&) = delete;
    LocalHttpServer& operator=(const LocalHttpServer&) = delete;

    // "http://127.0.0.1:<port>" followed by `path`.
    std::string url(const std::string& path) const;
    // A loopback address for `path` on a port nobody listens on.
    static std::string refusedURL(const std::string& path);
    // Answers requests for `path` (query string ignored) with `response` from now on.
    void setResponse(const std::string& path, Response response);
    // Requests received so far for `path`, and in total.
    size_t requestCount(const std::string& path) const;
    size_t totalRequests() const;

  private:
    void acceptLoop();
    void serveConnection(int fd);
    bool respond(int fd, const std::string& head);
    bool serveFile(int fd, const std::string& path, const std::string& range,
                   std::optional<size_t> dropAfterBytes);
    bool sendAll(int fd, const std::string& data);

    std::filesystem::path root_;
    int listenFd_ = -1;
    uint16_t port_ = 0;
    std::atomic<bool> stopping_{false};
    mutable std::mutex mutex_;
    std::condition_variable changed_;  // stopping, or a connection ended
    std::map<std::string, Response> responses_;
    std::map<std::string, size_t> counts_;
    size_t total_ = 0;
    int connections_ = 0;
    std::thread acceptThread_;
};

}  // namespace kavelin::test
