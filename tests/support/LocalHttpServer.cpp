#include "support/LocalHttpServer.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstring>
#include <fstream>
#include <stdexcept>

namespace kavelin::test {
namespace {

constexpr int kPollMillis = 50;
constexpr double kIdleSeconds = 5.0;  // keep-alive connections close after this
constexpr size_t kMaxHeaderBytes = 16 * 1024;

std::string lower(std::string s) {
    std::transform(s.begin(), s.end(), s.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return s;
}

std::string trim(const std::string& s) {
    size_t b = s.find_first_not_of(" \t");
    if (b == std::string::npos) return {};
    size_t e = s.find_last_not_of(" \t\r");
    return s.substr(b, e - b + 1);
}

const char* reason(int status) {
    switch (status) {
        case 200:
            return "OK";
        case 206:
            return "Partial Content";
        case 301:
            return "Moved Permanently";
        case 302:
            return "Found";
        case 400:
            return "Bad Request";
        case 403:
            return "Forbidden";
        case 404:
            return "Not Found";
        case 416:
            return "Range Not Satisfiable";
        case 500:
            return "Internal Server Error";
        case 503:
            return "Service Unavailable";
        default:
            return "Status";
    }
}

std::string contentTypeFor(const std::filesystem::path& p) {
    auto ext = lower(p.extension().string());
    if (ext == ".m3u8") return "application/vnd.apple.mpegurl";
    if (ext == ".ts") return "video/mp2t";
    if (ext == ".mp4" || ext == ".m4s") return "video/mp4";
    if (ext == ".mkv") return "video/x-matroska";
    if (ext == ".png") return "image/png";
    if (ext == ".jpg" || ext == ".jpeg") return "image/jpeg";
    if (ext == ".json") return "application/json";
    return "application/octet-stream";
}

// Percent-decodes a request path; rejects anything that climbs out of the root.
std::optional<std::string> decodePath(const std::string& raw) {
    std::string out;
    for (size_t i = 0; i < raw.size(); ++i) {
        if (raw[i] == '%' && i + 2 < raw.size()) {
            out.push_back(static_cast<char>(std::stoi(raw.substr(i + 1, 2), nullptr, 16)));
            i += 2;
        } else {
            out.push_back(raw[i]);
        }
    }
    if (out.find("..") != std::string::npos) return std::nullopt;
    return out;
}

}  // namespace

LocalHttpServer::LocalHttpServer(std::filesystem::path root, size_t maxConnections)
    : root_(std::move(root)), maxConnections_(maxConnections) {
    listenFd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (listenFd_ < 0) throw std::runtime_error("socket failed");
    int one = 1;
    ::setsockopt(listenFd_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = 0;
    if (::bind(listenFd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
        ::listen(listenFd_, 64) != 0) {
        ::close(listenFd_);
        throw std::runtime_error("bind/listen failed");
    }
    socklen_t len = sizeof addr;
    ::getsockname(listenFd_, reinterpret_cast<sockaddr*>(&addr), &len);
    port_ = ntohs(addr.sin_port);
    if (::pipe2(wakePipe_, O_CLOEXEC) != 0) {
        ::close(listenFd_);
        throw std::runtime_error("pipe failed");
    }
    acceptThread_ = std::thread([this] { acceptLoop(); });
}

LocalHttpServer::~LocalHttpServer() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    stopCv_.notify_all();
    char byte = 1;
    [[maybe_unused]] auto n = ::write(wakePipe_[1], &byte, 1);
    acceptThread_.join();
    for (auto& c : connections_) c.thread.join();
    ::close(listenFd_);
    ::close(wakePipe_[0]);
    ::close(wakePipe_[1]);
}

std::string LocalHttpServer::url(const std::string& path) const {
    return "http://127.0.0.1:" + std::to_string(port_) + path;
}

void LocalHttpServer::setResponse(const std::string& path, Response response) {
    std::lock_guard lock(mutex_);
    responses_[path] = std::move(response);
}

void LocalHttpServer::clearResponse(const std::string& path) {
    std::lock_guard lock(mutex_);
    responses_.erase(path);
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

bool LocalHttpServer::waitOrStop(double seconds) {
    std::unique_lock lock(mutex_);
    return !stopCv_.wait_for(lock, std::chrono::duration<double>(seconds),
                             [this] { return stopping_.load(); });
}

void LocalHttpServer::reapFinished() {
    for (auto it = connections_.begin(); it != connections_.end();) {
        if (it->done->load()) {
            it->thread.join();
            it = connections_.erase(it);
        } else {
            ++it;
        }
    }
}

void LocalHttpServer::acceptLoop() {
    pollfd fds[2] = {{listenFd_, POLLIN, 0}, {wakePipe_[0], POLLIN, 0}};
    while (!stopping_) {
        if (::poll(fds, 2, kPollMillis) < 0) continue;
        reapFinished();
        if (stopping_) break;
        if (!(fds[0].revents & POLLIN)) continue;
        int fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) continue;
        if (connections_.size() >= maxConnections_) {
            sendAll(fd,
                    "HTTP/1.1 503 Service Unavailable\r\nContent-Length: 0\r\n"
                    "Connection: close\r\n\r\n");
            ::close(fd);
            continue;
        }
        auto done = std::make_shared<std::atomic<bool>>(false);
        connections_.push_back({std::thread([this, fd, done] {
                                    serveConnection(fd);
                                    ::close(fd);
                                    done->store(true);
                                }),
                                done});
    }
}

void LocalHttpServer::serveConnection(int fd) {
    std::string buffer;
    for (;;) {
        Request request;
        if (!readRequest(fd, buffer, request)) return;
        {
            std::lock_guard lock(mutex_);
            ++counts_[request.path];
            ++total_;
        }
        bool keepAlive = lower(request.headers["connection"]) != "close";
        if (!respond(fd, request, keepAlive) || !keepAlive) return;
    }
}

bool LocalHttpServer::readRequest(int fd, std::string& buffer, Request& request) {
    auto idleSince = std::chrono::steady_clock::now();
    size_t end;
    while ((end = buffer.find("\r\n\r\n")) == std::string::npos) {
        if (stopping_ || buffer.size() > kMaxHeaderBytes) return false;
        pollfd p{fd, POLLIN, 0};
        int r = ::poll(&p, 1, kPollMillis);
        if (r == 0) {
            auto idle = std::chrono::steady_clock::now() - idleSince;
            if (std::chrono::duration<double>(idle).count() > kIdleSeconds) return false;
            continue;
        }
        if (r < 0) return false;
        char chunk[4096];
        ssize_t n = ::recv(fd, chunk, sizeof chunk, 0);
        if (n <= 0) return false;
        buffer.append(chunk, static_cast<size_t>(n));
    }
    std::string head = buffer.substr(0, end);
    buffer.erase(0, end + 4);  // request bodies are not expected

    size_t lineEnd = head.find("\r\n");
    std::string requestLine = head.substr(0, lineEnd);
    size_t s1 = requestLine.find(' ');
    size_t s2 = requestLine.find(' ', s1 + 1);
    if (s1 == std::string::npos || s2 == std::string::npos) return false;
    request.method = requestLine.substr(0, s1);
    std::string target = requestLine.substr(s1 + 1, s2 - s1 - 1);
    request.path = target.substr(0, target.find('?'));
    size_t pos = lineEnd == std::string::npos ? head.size() : lineEnd + 2;
    while (pos < head.size()) {
        size_t next = head.find("\r\n", pos);
        if (next == std::string::npos) next = head.size();
        std::string line = head.substr(pos, next - pos);
        size_t colon = line.find(':');
        if (colon != std::string::npos)
            request.headers[lower(trim(line.substr(0, colon)))] = trim(line.substr(colon + 1));
        pos = next + 2;
    }
    return true;
}

bool LocalHttpServer::sendAll(int fd, const std::string& data) {
    size_t sent = 0;
    while (sent < data.size()) {
        if (stopping_) return false;
        ssize_t n = ::send(fd, data.data() + sent, data.size() - sent, MSG_NOSIGNAL);
        if (n <= 0) return false;
        sent += static_cast<size_t>(n);
    }
    return true;
}

bool LocalHttpServer::respond(int fd, const Request& request, bool keepAlive) {
    std::optional<Response> canned;
    {
        std::lock_guard lock(mutex_);
        auto it = responses_.find(request.path);
        if (it != responses_.end()) canned = it->second;
    }
    if (canned) {
        if (canned->delaySeconds > 0 && !waitOrStop(canned->delaySeconds)) return false;
        if (canned->dropConnection) return false;
        if (!canned->body) return serveFile(fd, request, keepAlive, canned->dropAfterBytes);
        std::string out = "HTTP/1.1 " + std::to_string(canned->status) + " " +
                          reason(canned->status) + "\r\nContent-Type: " + canned->contentType +
                          "\r\nContent-Length: " + std::to_string(canned->body->size()) +
                          "\r\nConnection: " + (keepAlive ? "keep-alive" : "close") + "\r\n\r\n";
        if (request.method != "HEAD")
            out += canned->body->substr(0, canned->dropAfterBytes.value_or(std::string::npos));
        return sendAll(fd, out) && !canned->dropAfterBytes;
    }
    return serveFile(fd, request, keepAlive);
}

bool LocalHttpServer::serveFile(int fd, const Request& request, bool keepAlive,
                                std::optional<size_t> dropAfterBytes) {
    const std::string connection =
        std::string("Connection: ") + (keepAlive ? "keep-alive" : "close") + "\r\n";
    auto notFound = [&] {
        return sendAll(fd, "HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\n" + connection + "\r\n");
    };
    auto decoded = decodePath(request.path);
    if (root_.empty() || !decoded) return notFound();
    std::filesystem::path file = root_ / std::filesystem::path(*decoded).relative_path();
    std::error_code ec;
    if (!std::filesystem::is_regular_file(file, ec)) return notFound();
    const uint64_t size = std::filesystem::file_size(file, ec);
    if (ec) return notFound();

    uint64_t first = 0, last = size ? size - 1 : 0;
    bool partial = false;
    auto range = request.headers.find("range");
    if (range != request.headers.end() && range->second.rfind("bytes=", 0) == 0) {
        std::string byteRange = range->second.substr(6);
        size_t dash = byteRange.find('-');
        if (dash != std::string::npos && dash > 0) {
            first = std::stoull(byteRange.substr(0, dash));
            if (dash + 1 < byteRange.size())
                last = std::min<uint64_t>(std::stoull(byteRange.substr(dash + 1)), last);
            partial = true;
            if (first >= size) {
                return sendAll(fd, "HTTP/1.1 416 Range Not Satisfiable\r\nContent-Range: bytes */" +
                                       std::to_string(size) + "\r\nContent-Length: 0\r\n" +
                                       connection + "\r\n");
            }
        }
    }
    const uint64_t length = size ? last - first + 1 : 0;
    std::string head = std::string("HTTP/1.1 ") + (partial ? "206 Partial Content" : "200 OK") +
                       "\r\nContent-Type: " + contentTypeFor(file) +
                       "\r\nAccept-Ranges: bytes\r\nContent-Length: " + std::to_string(length) +
                       "\r\n";
    if (partial)
        head += "Content-Range: bytes " + std::to_string(first) + "-" + std::to_string(last) + "/" +
                std::to_string(size) + "\r\n";
    head += connection + "\r\n";
    if (!sendAll(fd, head)) return false;
    if (request.method == "HEAD") return true;

    std::ifstream in(file, std::ios::binary);
    in.seekg(static_cast<std::streamoff>(first));
    std::string chunk(64 * 1024, '\0');
    uint64_t remaining = length;
    if (dropAfterBytes) remaining = std::min<uint64_t>(remaining, *dropAfterBytes);
    while (remaining > 0) {
        auto want = static_cast<std::streamsize>(std::min<uint64_t>(remaining, chunk.size()));
        in.read(chunk.data(), want);
        auto got = in.gcount();
        if (got <= 0) return false;
        if (!sendAll(fd, chunk.substr(0, static_cast<size_t>(got)))) return false;
        remaining -= static_cast<uint64_t>(got);
    }
    return !dropAfterBytes;
}

}  // namespace kavelin::test
