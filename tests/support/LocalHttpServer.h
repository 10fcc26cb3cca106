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
#include <vector>

namespace kavelin::test {

// A small HTTP/1.1 server on 127.0.0.1 with an ephemeral port. It serves files
// below `root` (with byte ranges, as media players ask for them) and answers
// selected paths with canned responses so tests can provoke failures: an error
// status, a slow answer, or a connection that is dropped. Each connection runs on
// its own thread; the number of connections is bounded. The destructor stops
// everything, including responses still waiting out their delay.
class LocalHttpServer {
  public:
    struct Response {
        int status = 200;
        // When unset, the file at the request path below the root is served.
        std::optional<std::string> body{};
        std::string contentType = "text/plain";
        // Waited before anything is sent back.
        double delaySeconds = 0;
        // Closes the connection without answering (after the delay).
        bool dropConnection = false;
        // Promises the whole body, sends only this many bytes of it, then closes.
        std::optional<size_t> dropAfterBytes{};
    };

    explicit LocalHttpServer(std::filesystem::path root = {}, size_t maxConnections = 32);
    ~LocalHttpServer();

    LocalHttpServer(const LocalHttpServer&) = delete;
    LocalHttpServer& operator=(const LocalHttpServer&) = delete;

    uint16_t port() const { return port_; }
    // "http://127.0.0.1:<port>" followed by `path` (which should start with '/').
    std::string url(const std::string& path) const;

    // Answers requests for `path` (query string ignored) with `response` from now on.
    void setResponse(const std::string& path, Response response);
    void clearResponse(const std::string& path);

    // Requests received so far for `path`, and in total.
    size_t requestCount(const std::string& path) const;
    size_t totalRequests() const;

  private:
    struct Request {
        std::string method;
        std::string path;
        std::map<std::string, std::string> headers;  // names lower-cased
    };

    void acceptLoop();
    void serveConnection(int fd);
    bool readRequest(int fd, std::string& buffer, Request& request);
    bool respond(int fd, const Request& request, bool keepAlive);
    bool serveFile(int fd, const Request& request, bool keepAlive,
                   std::optional<size_t> dropAfterBytes = std::nullopt);
    bool sendAll(int fd, const std::string& data);
    // Waits `seconds` unless the server stops first; false when stopping.
    bool waitOrStop(double seconds);
    void reapFinished();

    std::filesystem::path root_;
    size_t maxConnections_;
    int listenFd_ = -1;
    int wakePipe_[2] = {-1, -1};
    uint16_t port_ = 0;
    std::atomic<bool> stopping_{false};

    mutable std::mutex mutex_;
    std::condition_variable stopCv_;
    std::map<std::string, Response> responses_;
    std::map<std::string, size_t> counts_;
    size_t total_ = 0;

    struct Connection {
        std::thread thread;
        std::shared_ptr<std::atomic<bool>> done;
    };
    std::vector<Connection> connections_;  // touched by the accept thread and the destructor
    std::thread acceptThread_;
};

}  // namespace kavelin::test
