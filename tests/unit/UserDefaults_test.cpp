#include "Kavelin/Platform/UserDefaults.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "Kavelin/Platform/Platform.h"
#include "Kavelin/Platform/ThreadMainQueue.h"
#include "Kavelin/Platform/VirtualMainQueue.h"
#include "Kavelin/log/VPLogger.h"

namespace kavelin {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

std::string readFile(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void writeFile(const fs::path& path, const std::string& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << bytes;
}

class UserDefaultsTest : public ::testing::Test {
  protected:
    void SetUp() override {
        std::string tmpl = (fs::temp_directory_path() / "kavelin-defaults-XXXXXX").string();
        ASSERT_NE(::mkdtemp(tmpl.data()), nullptr);
        dir = tmpl;
        file = dir / "Kavelin" / "UserDefaults.json";
        VPLogger::setSink([this](const std::string& line) { logLines.push_back(line); });
    }
    void TearDown() override {
        VPLogger::setSink(nullptr);
        fs::remove_all(dir);
    }

    std::unique_ptr<UserDefaults> makeStore() {
        return std::make_unique<UserDefaults>(file, queue);
    }
    std::vector<std::string> warnings() const {
        std::vector<std::string> out;
        for (const auto& line : logLines)
            if (line.find("[WARNING]") != std::string::npos) out.push_back(line);
        return out;
    }

    fs::path dir;
    fs::path file;
    std::shared_ptr<VirtualMainQueue> queue = std::make_shared<VirtualMainQueue>();
    std::vector<std::string> logLines;
};

TEST_F(UserDefaultsTest, ValuesKeepTheirTypesAcrossInstances) {
    {
        auto store = makeStore();
        EXPECT_FALSE(store->object("missing").has_value());
        store->setObject("text", "7");
        store->setObject("integer", 7);
        store->setObject("real", 2.5);
        store->setObject("flag", true);
        store->setObject("list", json::array({"a", 1, false}));
        store->setObject("map", json{{"p", json::array({"v1", "v2"})}});
        // Reads are served from memory before anything reaches the file.
        EXPECT_EQ(store->object("integer"), json(7));
        EXPECT_FALSE(fs::exists(file));
    }
    auto again = makeStore();
    ASSERT_TRUE(again->object("text").has_value());
    EXPECT_TRUE(again->object("text")->is_string());
    EXPECT_EQ(*again->object("text"), "7");
    EXPECT_TRUE(again->object("integer")->is_number_integer());
    EXPECT_EQ(*again->object("integer"), 7);
    EXPECT_DOUBLE_EQ(again->object("real")->get<double>(), 2.5);
    EXPECT_TRUE(again->object("flag")->is_boolean());
    EXPECT_EQ(*again->object("list"), json::array({"a", 1, false}));
    EXPECT_EQ(*again->object("map"), (json{{"p", json::array({"v1", "v2"})}}));
    EXPECT_FALSE(again->object("missing").has_value());
}

TEST_F(UserDefaultsTest, RemovedKeysStayRemovedAndRemovingNothingWritesNothing) {
    auto store = makeStore();
    store->setObject("a", 1);
    store->setObject("b", 2);
    store->flush();
    ASSERT_EQ(store->fileWriteCount(), 1u);

    store->removeObject("absent");
    store->flush();
    EXPECT_EQ(store->fileWriteCount(), 1u);

    store->removeObject("a");
    EXPECT_FALSE(store->object("a").has_value());
    store->flush();
    EXPECT_EQ(store->fileWriteCount(), 2u);
    EXPECT_EQ(json::parse(readFile(file)), (json{{"b", 2}}));
}

TEST_F(UserDefaultsTest, DefaultPathFollowsXdgConfigHomeThenHome) {
    const char* oldXdg = std::getenv("XDG_CONFIG_HOME");
    const std::string savedXdg = oldXdg ? oldXdg : "";
    const char* oldHome = std::getenv("HOME");
    const std::string savedHome = oldHome ? oldHome : "";

    ::setenv("XDG_CONFIG_HOME", "/srv/cfg", 1);
    EXPECT_EQ(UserDefaults::defaultPath(), fs::path("/srv/cfg/Kavelin/UserDefaults.json"));
    ::unsetenv("XDG_CONFIG_HOME");
    ::setenv("HOME", "/home/viewer", 1);
    EXPECT_EQ(UserDefaults::defaultPath(),
              fs::path("/home/viewer/.config/Kavelin/UserDefaults.json"));

    if (oldXdg) ::setenv("XDG_CONFIG_HOME", savedXdg.c_str(), 1);
    if (oldHome) ::setenv("HOME", savedHome.c_str(), 1);
}

TEST_F(UserDefaultsTest, TheRealPlatformStoreLivesUnderXdgConfigHome) {
    const char* oldXdg = std::getenv("XDG_CONFIG_HOME");
    const std::string savedXdg = oldXdg ? oldXdg : "";
    ::setenv("XDG_CONFIG_HOME", dir.c_str(), 1);
    {
        Platform real = makeRealPlatform();
        ASSERT_TRUE(real.defaults);
        real.queue->sync([&] {
            real.defaults->setObject("k", "v");
            real.defaults->flush();
        });
        EXPECT_EQ(real.defaults->fileWriteCount(), 1u);
        if (auto* thread = dynamic_cast<ThreadMainQueue*>(real.queue.get())) thread->shutdown();
    }
    EXPECT_EQ(json::parse(readFile(file)), (json{{"k", "v"}}));
    if (oldXdg)
        ::setenv("XDG_CONFIG_HOME", savedXdg.c_str(), 1);
    else
        ::unsetenv("XDG_CONFIG_HOME");
}

// ---- Coalesced writes ------------------------------------------------------

TEST_F(UserDefaultsTest, ABurstOfChangesReachesTheFileOnceAboutASecondLater) {
    auto store = makeStore();
    for (int i = 0; i < 50; ++i) {
        store->setObject("counter", i);
        queue->advance(0.01);
    }
    EXPECT_EQ(store->fileWriteCount(), 0u);
    queue->advance(0.6);  // one second after the first change
    EXPECT_EQ(store->fileWriteCount(), 1u);
    EXPECT_EQ(json::parse(readFile(file))["counter"], 49);
    queue->advance(5.0);
    EXPECT_EQ(store->fileWriteCount(), 1u);
    EXPECT_EQ(queue->pendingCount(), 0u);
}

TEST_F(UserDefaultsTest, SteadyChangesWriteAtMostOncePerSecond) {
    auto store = makeStore();
    for (int tick = 0; tick < 100; ++tick) {  // 10 s at the player's 0.1 s clock
        store->setObject("position", tick);
        queue->advance(0.1);
    }
    EXPECT_GE(store->fileWriteCount(), 9u);
    EXPECT_LE(store->fileWriteCount(), 10u);
}

TEST_F(UserDefaultsTest, AnUnchangedValueSchedulesNoWrite) {
    auto store = makeStore();
    const json big = json{{"p1", json::array({"a", "b", "c"})}, {"p2", json::array()}};
    store->setObject("map", big);
    store->flush();
    ASSERT_EQ(store->fileWriteCount(), 1u);

    for (int tick = 0; tick < 100; ++tick) {
        store->setObject("map", big);
        store->setObject("map", json(big));
        queue->advance(0.1);
    }
    EXPECT_EQ(queue->pendingCount(), 0u);
    store->flush();
    EXPECT_EQ(store->fileWriteCount(), 1u);

    // Same text, different type: that is a change.
    store->setObject("n", 1);
    store->flush();
    store->setObject("n", "1");
    store->flush();
    EXPECT_EQ(store->fileWriteCount(), 3u);
}

TEST_F(UserDefaultsTest, ExplicitFlushWritesNowAndReplacesThePendingWrite) {
    auto store = makeStore();
    store->setObject("k", "v");
    store->flush();
    EXPECT_EQ(store->fileWriteCount(), 1u);
    EXPECT_EQ(json::parse(readFile(file))["k"], "v");
    queue->advance(2.0);
    EXPECT_EQ(store->fileWriteCount(), 1u);
    store->flush();
    EXPECT_EQ(store->fileWriteCount(), 1u);
}

TEST_F(UserDefaultsTest, DestructionWritesPendingChangesAndOrphansTheTimer) {
    auto store = makeStore();
    store->setObject("k", "before teardown");
    store.reset();
    EXPECT_EQ(json::parse(readFile(file))["k"], "before teardown");
    queue->advance(2.0);  // the cancelled or orphaned write must not touch anything
    EXPECT_EQ(json::parse(readFile(file))["k"], "before teardown");
}

TEST_F(UserDefaultsTest, ProcessExitWritesPendingChanges) {
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        // A store nobody flushes or destroys, as the platform's is.
        auto* store = new UserDefaults(file, std::make_shared<VirtualMainQueue>());
        store->setObject("fromChild", json::array({"x", "y"}));
        std::exit(0);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    ASSERT_EQ(WEXITSTATUS(status), 0);
    auto store = makeStore();
    EXPECT_EQ(store->object("fromChild"), json::array({"x", "y"}));
}

// ---- Atomic replacement ----------------------------------------------------

TEST_F(UserDefaultsTest, RewritingReplacesTheFileInsteadOfOverwritingIt) {
    auto store = makeStore();
    store->setObject("generation", 1);
    store->flush();
    const std::string first = readFile(file);

    // A reader that opened the file before the rewrite keeps the complete old
    // text: the new one arrives under the name by rename, never in place.
    std::ifstream reader(file, std::ios::binary);
    store->setObject("generation", 2);
    store->setObject("padding", std::string(100000, 'x'));
    store->flush();
    const std::string seenByReader{std::istreambuf_iterator<char>(reader),
                                   std::istreambuf_iterator<char>()};
    EXPECT_EQ(seenByReader, first);
    EXPECT_EQ(json::parse(readFile(file))["generation"], 2);

    // Only the file itself is left in the directory.
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(file.parent_path()))
        names.push_back(entry.path().filename().string());
    EXPECT_EQ(names, std::vector<std::string>{"UserDefaults.json"});
}

TEST_F(UserDefaultsTest, ALeftoverTempFileIsNeverReadAsData) {
    fs::create_directories(file.parent_path());
    writeFile(file.parent_path() / "UserDefaults.json.a1B2c3", R"({"k":"from a torn write"})");
    auto store = makeStore();
    EXPECT_FALSE(store->object("k").has_value());

    writeFile(file, R"({"k":"committed"})");
    writeFile(file.parent_path() / "UserDefaults.json.d4E5f6", R"({"k":"half)");
    EXPECT_EQ(makeStore()->object("k"), json("committed"));
}

TEST_F(UserDefaultsTest, UnwritableDirectoryWarnsOnceAndKeepsWorkingFromMemory) {
    // A regular file where the directory should be: unwritable even for root.
    writeFile(dir / "blocker", "not a directory");
    const fs::path blocked = dir / "blocker" / "Kavelin" / "UserDefaults.json";
    auto store = std::make_unique<UserDefaults>(blocked, queue);

    for (int tick = 0; tick < 30; ++tick) {
        store->setObject("tick", tick);
        queue->advance(0.1);
    }
    store->flush();
    store->flush();
    EXPECT_EQ(store->object("tick"), json(29));
    EXPECT_EQ(store->fileWriteCount(), 0u);

    const auto lines = warnings();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].find("] ⚠️ "), std::string::npos) << lines[0];
    store.reset();
    EXPECT_EQ(warnings().size(), 1u);
}

}  // namespace
}  // namespace kavelin
