#include "Kavelin/Platform/UserDefaults.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "Kavelin/Platform/Platform.h"
#include "Kavelin/Platform/ThreadMainQueue.h"
#include "support/VirtualPlatform.h"

namespace kavelin {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using testing::readFile;

void writeFile(const fs::path& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

// Sets an environment variable for the lifetime of the object.
class ScopedEnv {
  public:
    ScopedEnv(const char* name, const char* value) : name_(name) {
        if (const char* old = std::getenv(name)) old_ = old;
        value ? ::setenv(name, value, 1) : ::unsetenv(name);
    }
    ~ScopedEnv() { old_ ? ::setenv(name_, old_->c_str(), 1) : ::unsetenv(name_); }

  private:
    const char* name_;
    std::optional<std::string> old_;
};

class UserDefaultsTest : public ::testing::Test {
  protected:
    std::unique_ptr<UserDefaults> makeStore() {
        return std::make_unique<UserDefaults>(file, queue);
    }
    json onDisk() const { return json::parse(readFile(file)); }
    std::vector<std::string> warnings() const {
        std::vector<std::string> out;
        for (const auto& line : logs.lines())
            if (line.find("[WARNING] ") != std::string::npos) out.push_back(line);
        return out;
    }

    testing::TempDir dir;
    fs::path file = dir.path / "Kavelin" / "UserDefaults.json";
    std::shared_ptr<VirtualMainQueue> queue = std::make_shared<VirtualMainQueue>();
    testing::LogCapture logs;
};

TEST_F(UserDefaultsTest, ValuesKeepTheirTypesAcrossInstancesAndRemovalsStick) {
    const std::pair<const char*, json> values[] = {{"text", "7"},
                                                   {"integer", 7},
                                                   {"real", 2.5},
                                                   {"flag", true},
                                                   {"gone", 1},
                                                   {"list", json::array({"a", 1, false})},
                                                   {"map", json{{"p", json::array({"v1", "v2"})}}}};
    {
        auto store = makeStore();
        EXPECT_FALSE(store->object("missing").has_value());
        for (const auto& [key, value] : values) store->setObject(key, value);
        // Reads are served from memory before anything reaches the file.
        EXPECT_EQ(store->object("integer"), json(7));
        EXPECT_FALSE(fs::exists(file));
        store->flush();
        store->removeObject("absent");  // removing nothing writes nothing
        store->flush();
        EXPECT_EQ(store->fileWriteCount(), 1u);
        store->removeObject("gone");
        EXPECT_FALSE(store->object("gone").has_value());
        store->flush();
        EXPECT_EQ(store->fileWriteCount(), 2u);
    }
    auto again = makeStore();
    for (const auto& [key, value] : values) {
        if (key == std::string("gone")) continue;
        ASSERT_TRUE(again->object(key).has_value()) << key;
        EXPECT_EQ(again->object(key)->dump(), value.dump()) << key;  // types too: 7 is not 7.0
    }
    EXPECT_FALSE(again->object("gone") || again->object("missing"));
}

TEST_F(UserDefaultsTest, DefaultPathFollowsXdgConfigHomeThenHomeAndTheRealStoreUsesIt) {
    {
        ScopedEnv xdg("XDG_CONFIG_HOME", "/srv/cfg");
        EXPECT_EQ(UserDefaults::defaultPath(), fs::path("/srv/cfg/Kavelin/UserDefaults.json"));
    }
    {
        ScopedEnv xdg("XDG_CONFIG_HOME", nullptr), home("HOME", "/home/viewer");
        EXPECT_EQ(UserDefaults::defaultPath(),
                  fs::path("/home/viewer/.config/Kavelin/UserDefaults.json"));
    }
    ScopedEnv xdg("XDG_CONFIG_HOME", dir.path.c_str());
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
    EXPECT_EQ(onDisk(), (json{{"k", "v"}}));
}

TEST_F(UserDefaultsTest, ChangesReachTheFileAboutASecondLaterAtMostOncePerSecond) {
    auto store = makeStore();
    for (int i = 0; i < 50; ++i) {
        store->setObject("counter", i);
        queue->advance(0.01);
    }
    EXPECT_EQ(store->fileWriteCount(), 0u);
    queue->advance(0.6);  // one second after the first change
    EXPECT_EQ(store->fileWriteCount(), 1u);
    EXPECT_EQ(onDisk()["counter"], 49);
    queue->advance(5.0);
    EXPECT_EQ(store->fileWriteCount(), 1u);
    EXPECT_EQ(queue->pendingCount(), 0u);

    for (int tick = 0; tick < 100; ++tick) {  // 10 s at the player's 0.1 s clock
        store->setObject("position", tick);
        queue->advance(0.1);
    }
    EXPECT_GE(store->fileWriteCount(), 1u + 9u);
    EXPECT_LE(store->fileWriteCount(), 1u + 10u);
}

TEST_F(UserDefaultsTest, AnUnchangedValueSchedulesNoWriteButAnotherTypeIsAChange) {
    auto store = makeStore();
    const json big = json{{"p1", json::array({"a", "b", "c"})}, {"p2", json::array()}};
    store->setObject("map", big);
    store->flush();
    for (int tick = 0; tick < 100; ++tick) {
        store->setObject("map", big);
        store->setObject("map", json(big));
        queue->advance(0.1);
    }
    EXPECT_EQ(queue->pendingCount(), 0u);
    store->flush();
    EXPECT_EQ(store->fileWriteCount(), 1u);
    for (const json& n : {json(1), json("1")}) {
        store->setObject("n", n);
        store->flush();
    }
    EXPECT_EQ(store->fileWriteCount(), 3u);
}

TEST_F(UserDefaultsTest, FlushDestructionAndProcessExitWritePendingChanges) {
    auto store = makeStore();
    store->setObject("k", "v");
    store->flush();
    EXPECT_EQ(store->fileWriteCount(), 1u);
    EXPECT_EQ(onDisk()["k"], "v");
    queue->advance(2.0);  // the flush replaced the pending write
    store->flush();
    EXPECT_EQ(store->fileWriteCount(), 1u);

    store->setObject("k", "before teardown");
    store.reset();
    EXPECT_EQ(onDisk()["k"], "before teardown");
    queue->advance(2.0);  // the cancelled or orphaned write must not touch anything
    EXPECT_EQ(onDisk()["k"], "before teardown");

    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        // A store nobody flushes or destroys, as the platform's is.
        auto* leaked = new UserDefaults(file, std::make_shared<VirtualMainQueue>());
        leaked->setObject("fromChild", json::array({"x", "y"}));
        std::exit(0);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_EQ(makeStore()->object("fromChild"), json::array({"x", "y"}));
}

TEST_F(UserDefaultsTest, RewritingReplacesTheFileAndLeftoverTempFilesAreNeverData) {
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
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(reader), {}), first);
    EXPECT_EQ(onDisk()["generation"], 2);
    // Only the file itself is left in the directory.
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(file.parent_path()))
        names.push_back(entry.path().filename().string());
    EXPECT_EQ(names, std::vector<std::string>{"UserDefaults.json"});
    store.reset();

    writeFile(file.parent_path() / "UserDefaults.json.d4E5f6", R"({"generation":"half)");
    EXPECT_EQ(makeStore()->object("generation"), json(2));
    fs::remove(file);
    writeFile(file.parent_path() / "UserDefaults.json.a1B2c3", R"({"k":"from a torn write"})");
    EXPECT_FALSE(makeStore()->object("k").has_value());
}

TEST_F(UserDefaultsTest, UnwritableDirectoryWarnsOnceAndKeepsWorkingFromMemory) {
    // A regular file where the directory should be: unwritable even for root.
    writeFile(dir.path / "blocker", "not a directory");
    auto store = std::make_unique<UserDefaults>(dir.path / "blocker" / "Kavelin" / "x.json", queue);
    for (int tick = 0; tick < 30; ++tick) {
        store->setObject("tick", tick);
        queue->advance(0.1);
    }
    store->flush();
    store->flush();
    EXPECT_EQ(store->object("tick"), json(29));
    EXPECT_EQ(store->fileWriteCount(), 0u);
    ASSERT_EQ(warnings().size(), 1u);
    EXPECT_NE(warnings()[0].find("] ⚠️ "), std::string::npos) << warnings()[0];
    store.reset();
    EXPECT_EQ(warnings().size(), 1u);
}

}  // namespace
}  // namespace kavelin
