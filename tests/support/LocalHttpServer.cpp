#include "support/LocalHttpServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <fstream>
#include <stdexcept>

namespace kavelin::test {
namespace {

constexpr int kPollMillis = 50;
constexpr int kIdlePolls = 100;  // a keep-alive connection closes after 5 s of silence

// The value of header `name` (lower case, with its colon) in a request head.
std::string header(const std::string& head, const std::string& name) {
    std::string lower = head;
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    const size_t at = lower.find("\r\n" + name);
    if (at == std::string::npos) return {};
    const size_t from = head.find_first_not_of(' ', at + 2 + name.size());
    return head.substr(from, head.find("\r\n", from) - from);
}

std::string contentTypeFor(const std::filesystem::path& p) {
    const auto ext = p.extension();
    if (ext == ".m3u8") return "application/vnd.apple.mpegurl";
    if (ext == ".ts") return "video/mp2t";
    if (ext == ".mp4") return "video/mp4";
    return "application/octet-stream";
}

std::string statusLine(int status) {
    return "HTTP/1.1 " + std::to_string(status) + (status / 100 == 2 ? " OK" : " Error") + "\r\n";
}

}  // namespace

LocalHttpServer::LocalHttpServer(std::filesystem::path root) : root_(std::move(root)) {
    listenFd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    if (listenFd_ < 0 || ::bind(listenFd_, reinterpret_cast<sockaddr*>(&addr), len) != 0 ||
        ::listen(listenFd_, 64) != 0 ||
        ::getsockname(listenFd_, reinterpret_cast<sockaddr*>(&addr), &len) != 0)
        throw std::runtime_error("the test server could not listen");
    port_ = ntohs(addr.sin_port);
    acceptThread_ = std::thread([this] { acceptLoop(); });
}

LocalHttpServer::~LocalHttpServer() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    changed_.notify_all();
    acceptThread_.join();  // first, so no connection starts after the count is read
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return connections_ == 0; });
    ::close(listenFd_);
}

std::string LocalHttpServer::url(const std::string& path) const {
    return "http://127.0.0.1:" + std::to_string(port_) + path;
}

std::string LocalHttpServer::refusedURL(const std::string& path) {
    int fd = ::socket(AF_INET, SOCK_STREAM, 0);  // bound for a free port, then released
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    ::bind(fd, reinterpret_cast<sockaddr*>(&addr), len);
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
    ::close(fd);
    return "http://127.0.0.1:" + std::to_string(ntohs(addr.sin_port)) + path;
}

void LocalHttpServer::setResponse(const std::string& path, Response response) {
    std::lock_guard lock(mutex_);
    responses_[path] = std::move(response);
}

size_t LocalHttpServer::requestCount(const std::string& path) const {
    std::lock_guard lock(mutex_);
    auto it = counts_.find(path);
    return it == counts_.end() ? 0 : it->second;
}

size_t LocalHttpServer::totalRequests() const {
    std::lock_guard lock(mutex_);
    return total_;
}

void LocalHttpServer::acceptLoop() {
    while (!stopping_) {
        pollfd p{listenFd_, POLLIN, 0};
        if (::poll(&p, 1, kPollMillis) <= 0) continue;
        const int fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) continue;
        std::lock_guard lock(mutex_);  // the destructor waits for this count
        ++connections_;
        std::thread([this, fd] {
            serveConnection(fd);
            ::close(fd);
            std::lock_guard done(mutex_);
            --connections_;
            changed_.notify_all();
        }).detach();
    }
}

void LocalHttpServer::serveConnection(int fd) {
    std::string buffer;
    for (int idle = 0; !stopping_ && idle < kIdlePolls;) {
        const size_t end = buffer.find("\r\n\r\n");
        if (end != std::string::npos) {
            const std::string head = buffer.substr(0, end + 2);
            buffer.erase(0, end + 4);  // request bodies are not expected
            if (!respond(fd, head) || header(head, "connection:") == "close") return;
            idle = 0;
            continue;
        }
        pollfd p{fd, POLLIN, 0};
        const int ready = ::poll(&p, 1, kPollMillis);
        if (ready == 0) ++idle;
        if (ready == 0 || (ready < 0 && errno == EINTR)) continue;
        char chunk[4096];
        const ssize_t n = ::recv(fd, chunk, sizeof chunk, 0);
        if (n <= 0 || buffer.size() > 16 * 1024) return;
        buffer.append(chunk, static_cast<size_t>(n));
    }
}

bool LocalHttpServer::respond(int fd, const std::string& head) {
    // "GET /path?query HTTP/1.1"
    const size_t start = head.find(' ') + 1;
    const std::string target = head.substr(start, head.find(' ', start) - start);
    const std::string path = target.substr(0, target.find('?'));
    std::optional<Response> canned;
    {
        std::unique_lock lock(mutex_);
        ++counts_[path];
        ++total_;
        if (auto it = responses_.find(path); it != responses_.end()) canned = it->second;
        if (canned && canned->delaySeconds > 0 &&
            changed_.wait_for(lock, std::chrono::duration<double>(canned->delaySeconds),
                              [this] { return stopping_.load(); }))
            return false;
    }
    const auto cut = canned ? canned->dropAfterBytes : std::nullopt;
    if (!canned || !canned->body) return serveFile(fd, path, header(head, "range:"), cut);
    return sendAll(fd, statusLine(canned->status) + "Content-Type: " + canned->contentType +
                           "\r\nContent-Length: " + std::to_string(canned->body->size()) +
                           "\r\n\r\n" + canned->body->substr(0, cut.value_or(std::string::npos))) &&
           !cut;
}

bool LocalHttpServer::serveFile(int fd, const std::string& path, const std::string& range,
                                std::optional<size_t> dropAfterBytes) {
    const auto file = root_ / std::filesystem::path(path).relative_path();
    std::error_code ec;
    if (root_.empty() || path.find("..") != std::string::npos ||
        !std::filesystem::is_regular_file(file, ec))
        return sendAll(fd, statusLine(404) + "Content-Length: 0\r\n\r\n");
    const uint64_t size = std::filesystem::file_size(file);
    uint64_t first = 0, last = size ? size - 1 : 0;
    // "bytes=FIRST-" or "bytes=FIRST-LAST"
    const bool partial = range.rfind("bytes=", 0) == 0 && range.size() > 7 && range[6] != '-';
    if (partial) {
        first = std::stoull(range.substr(6));
        const std::string end = range.substr(range.find('-') + 1);
        if (!end.empty()) last = std::min<uint64_t>(std::stoull(end), last);
        if (first >= size)
            return sendAll(fd, statusLine(416) + "Content-Range: bytes */" + std::to_string(size) +
                                   "\r\nContent-Length: 0\r\n\r\n");
    }
    const uint64_t length = size ? last - first + 1 : 0;
    std::string out = statusLine(partial ? 206 : 200) + "Content-Type: " + contentTypeFor(file) +
                      "\r\nAccept-Ranges: bytes\r\nContent-Length: " + std::to_string(length) +
                      "\r\n";
    if (partial)
        out += "Content-Range: bytes " + std::to_string(first) + "-" + std::to_string(last) + "/" +
               std::to_string(size) + "\r\n";
    std::ifstream in(file, std::ios::binary);
    in.seekg(static_cast<std::streamoff>(first));
    std::string chunk(64 * 1024, '\0');
    out += "\r\n";
    for (uint64_t left = std::min<uint64_t>(length, dropAfterBytes.value_or(length)); left > 0;) {
        in.read(chunk.data(), static_cast<std::streamsize>(std::min<uint64_t>(left, chunk.size())));
        const auto got = static_cast<size_t>(in.gcount());
        if (got == 0) return false;
        out.append(chunk, 0, got);
        if (!sendAll(fd, out)) return false;
        out.clear();
        left -= got;
    }
    return (out.empty() || sendAll(fd, out)) && !dropAfterBytes;
}

bool LocalHttpServer::sendAll(int fd, const std::string& data) {
    for (size_t sent = 0; sent < data.size();) {
        const ssize_t n =
            stopping_ ? -1 : ::send(fd, data.data() + sent, data.size() - sent, MSG_NOSIGNAL);
        if (n <= 0) return false;
        sent += static_cast<size_t>(n);
    }
    return true;
}

}  // namespace kavelin::test
