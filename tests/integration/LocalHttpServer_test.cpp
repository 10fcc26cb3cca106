#include "support/LocalHttpServer.h"

#include <curl/curl.h>
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <thread>

namespace kavelin::test {
namespace {

struct Fetched {
    long status = 0;
    std::string body;
    CURLcode code = CURLE_OK;
};

size_t collect(char* data, size_t size, size_t count, void* out) {
    static_cast<std::string*>(out)->append(data, size * count);
    return size * count;
}

Fetched fetch(const std::string& url, const char* range = nullptr, long timeoutMs = 5000) {
    Fetched f;
    CURL* curl = curl_easy_init();
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, collect);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &f.body);
    curl_easy_setopt(curl, CURLOPT_TIMEOUT_MS, timeoutMs);
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    if (range) curl_easy_setopt(curl, CURLOPT_RANGE, range);
    f.code = curl_easy_perform(curl);
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &f.status);
    curl_easy_cleanup(curl);
    return f;
}

class LocalHttpServerTest : public ::testing::Test {
  protected:
    void SetUp() override {
        root_ = std::filesystem::temp_directory_path() /
                ("kavelin-http-" + std::to_string(::getpid()) + "-" +
                 ::testing::UnitTest::GetInstance()->current_test_info()->name());
        std::filesystem::create_directories(root_ / "media");
        std::ofstream(root_ / "media" / "clip.bin") << "0123456789abcdef";
    }
    void TearDown() override { std::filesystem::remove_all(root_); }
    std::filesystem::path root_;
};

TEST_F(LocalHttpServerTest, ServesFilesWholeAndByRangeAndCountsRequests) {
    LocalHttpServer server(root_);
    auto whole = fetch(server.url("/media/clip.bin"));
    EXPECT_EQ(whole.status, 200);
    EXPECT_EQ(whole.body, "0123456789abcdef");

    auto part = fetch(server.url("/media/clip.bin?x=1"), "4-7");
    EXPECT_EQ(part.status, 206);
    EXPECT_EQ(part.body, "4567");

    auto tail = fetch(server.url("/media/clip.bin"), "10-");
    EXPECT_EQ(tail.body, "abcdef");

    EXPECT_EQ(fetch(server.url("/media/missing.bin")).status, 404);
    EXPECT_EQ(fetch(server.url("/../etc/passwd")).status, 404);
    EXPECT_EQ(server.requestCount("/media/clip.bin"), 3u);
    EXPECT_EQ(server.totalRequests(), 5u);
}

TEST_F(LocalHttpServerTest, CannedResponsesOverrideFilesUntilCleared) {
    LocalHttpServer server(root_);
    server.setResponse("/media/clip.bin", {.status = 500, .body = "boom"});
    auto failed = fetch(server.url("/media/clip.bin"));
    EXPECT_EQ(failed.status, 500);
    EXPECT_EQ(failed.body, "boom");

    server.setResponse("/virtual.json",
                       {.status = 200, .body = "{}", .contentType = "application/json"});
    EXPECT_EQ(fetch(server.url("/virtual.json")).body, "{}");

    server.clearResponse("/media/clip.bin");
    EXPECT_EQ(fetch(server.url("/media/clip.bin")).status, 200);
}

TEST_F(LocalHttpServerTest, DroppedConnectionAndDelayLookLikeNetworkFailures) {
    LocalHttpServer server(root_);
    LocalHttpServer::Response drop;
    drop.dropConnection = true;
    server.setResponse("/drop", drop);
    auto dropped = fetch(server.url("/drop"));
    EXPECT_NE(dropped.code, CURLE_OK);

    server.setResponse("/slow", {.body = "late", .delaySeconds = 30});
    auto slow = fetch(server.url("/slow"), nullptr, 300);
    EXPECT_EQ(slow.code, CURLE_OPERATION_TIMEDOUT);
}

TEST_F(LocalHttpServerTest, DestructorDoesNotWaitOutPendingDelays) {
    auto server = std::make_unique<LocalHttpServer>(root_);
    server->setResponse("/slow", {.body = "late", .delaySeconds = 600});
    std::thread client([url = server->url("/slow")] { fetch(url, nullptr, 60000); });
    while (server->totalRequests() == 0) std::this_thread::yield();
    auto start = std::chrono::steady_clock::now();
    server.reset();
    client.join();
    // Had the destructor waited for the delay, the test would hang for ten minutes.
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(30));
}

}  // namespace
}  // namespace kavelin::test
