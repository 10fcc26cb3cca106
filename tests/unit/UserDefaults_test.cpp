#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <map>
#include <random>
#include <thread>

#include "Kavelin/Platform/Linux/FileUserDefaults.h"
#include "Kavelin/Platform/Linux/ThreadMainQueue.h"
#include "Kavelin/Platform/Platform.h"
#include "Kavelin/log/VPLogger.h"
#include "support/ScopedEnv.h"
#include "support/VirtualPlatform.h"

namespace kavelin {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using testing::readFile;

void writeFile(const fs::path& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

class UserDefaultsTest : public ::testing::Test {
  protected:
    auto makeStore() { return std::make_unique<FileUserDefaults>(file, queue); }
    json onDisk() const { return json::parse(readFile(file)); }
    // Entries beside the state file (itself included) whose names start with `prefix`.
    std::vector<fs::path> beside(const std::string& prefix = "") const {
        std::vector<fs::path> out;
        for (const auto& entry : fs::directory_iterator(file.parent_path()))
            if (entry.path().filename().string().starts_with(prefix)) out.push_back(entry.path());
        return out;
    }
    ScratchDir dir;
    fs::path file = dir.path / "Kavelin" / "UserDefaults.json";
    std::shared_ptr<VirtualMainQueue> queue = std::make_shared<VirtualMainQueue>();
    testing::LogCapture logs;
};

TEST_F(UserDefaultsTest, ValuesKeepTheirTypesAcrossInstancesAndRemovalsStick) {
    const json values = {{"text", "7"},
                         {"integer", 7},
                         {"real", 2.5},
                         {"flag", true},
                         {"gone", 1},
                         {"list", {"a", 1, false}},
                         {"map", {{"p", {"v1", "v2"}}}}};
    {
        auto store = makeStore();
        EXPECT_FALSE(store->object("missing").has_value());
        for (const auto& [key, value] : values.items()) store->setObject(key, value);
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
    for (const auto& [key, value] : values.items())  // types too: 7 is not 7.0
        EXPECT_EQ(again->object(key).value_or(nullptr).dump(),
                  key == "gone" ? "null" : value.dump());
    EXPECT_FALSE(again->object("gone") || again->object("missing"));
}

TEST_F(UserDefaultsTest, DefaultPathFollowsXdgConfigHomeThenHomeAndTheRealStoreUsesIt) {
    {
        ScopedEnv xdg("XDG_CONFIG_HOME", "/srv/cfg");
        EXPECT_EQ(FileUserDefaults::defaultPath(), fs::path("/srv/cfg/Kavelin/UserDefaults.json"));
    }
    {
        ScopedEnv xdg("XDG_CONFIG_HOME", nullptr), home("HOME", "/home/viewer");
        EXPECT_EQ(FileUserDefaults::defaultPath(),
                  fs::path("/home/viewer/.config/Kavelin/UserDefaults.json"));
    }
    ScopedEnv xdg("XDG_CONFIG_HOME", dir.path.c_str());
    Platform real = makeRealPlatform();
    auto* store = dynamic_cast<FileUserDefaults*>(real.defaults.get());
    ASSERT_NE(store, nullptr) << "the real platform keeps its marks in the file store";
    real.queue->sync([&] {
        store->setObject("k", "v");
        store->flush();
    });
    EXPECT_EQ(store->fileWriteCount(), 1u);
    EXPECT_EQ(onDisk(), (json{{"k", "v"}}));
    if (auto* thread = dynamic_cast<ThreadMainQueue*>(real.queue.get())) thread->shutdown();
}

TEST_F(UserDefaultsTest, ChangesReachTheFileAboutASecondLaterAtMostOncePerSecondAndOnlyChanges) {
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
    EXPECT_EQ(std::pair(store->fileWriteCount(), queue->pendingCount()), std::pair(1ul, 0ul));

    for (int tick = 0; tick < 100; ++tick) {  // 10 s at the player's 0.1 s clock
        store->setObject("position", tick);
        queue->advance(0.1);
    }
    EXPECT_TRUE(store->fileWriteCount() >= 10 && store->fileWriteCount() <= 11)
        << store->fileWriteCount();
    // An unchanged value schedules no write, but the same value as another type is a change.
    const json big = {{"p1", {"a", "b", "c"}}, {"p2", json::array()}};
    store->setObject("map", big);
    store->flush();
    const size_t written = store->fileWriteCount();
    for (int tick = 0; tick < 100; ++tick) {
        store->setObject("map", big);
        store->setObject("map", json(big));
        queue->advance(0.1);
    }
    EXPECT_EQ(queue->pendingCount(), 0u);
    store->flush();
    EXPECT_EQ(store->fileWriteCount(), written);
    for (const json& n : {json(1), json("1")}) {
        store->setObject("n", n);
        store->flush();
    }
    EXPECT_EQ(store->fileWriteCount(), written + 2);
}

TEST_F(UserDefaultsTest, FlushDestructionAndProcessExitWritePendingChanges) {
    auto store = makeStore();
    store->setObject("k", "v");
    store->flush();
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
        auto* leaked = new FileUserDefaults(file, std::make_shared<VirtualMainQueue>());
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
    EXPECT_EQ(beside(), std::vector<fs::path>{file}) << "only the file itself is left";
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
    auto store =
        std::make_unique<FileUserDefaults>(dir.path / "blocker" / "Kavelin" / "x.json", queue);
    for (int tick = 0; tick < 30; ++tick) {
        store->setObject("tick", tick);
        queue->advance(0.1);
    }
    store->flush();
    store->flush();
    EXPECT_EQ(store->object("tick"), json(29));
    EXPECT_EQ(store->fileWriteCount(), 0u);
    ASSERT_EQ(logs.lines().size(), 1u);
    EXPECT_EQ(logs.levelOf(logs.messages()[0]), "WARNING");
    EXPECT_NE(logs.lines()[0].find("] ⚠️ "), std::string::npos) << logs.lines()[0];
    store.reset();
    EXPECT_EQ(logs.lines().size(), 1u);  // teardown's failed write says nothing more
}

// A crash, a full disk or a curious user can leave anything at the state file's
// path. Whatever is there, the library starts, keeps every entry it can read,
// says so once, and keeps the damaged file aside instead of overwriting it.
struct Damage {
    const char* name;
    std::string bytes;  // empty with `directory`: a directory stands at the path
    json kept;
    bool directory = false;
};

class DamagedStateFileTest : public UserDefaultsTest,
                             public ::testing::WithParamInterface<Damage> {};
const std::string kAside = "UserDefaults.json.corrupt-";

TEST_P(DamagedStateFileTest, KeepsReadableEntriesLogsOnceAndMovesTheFileAside) {
    const auto& damage = GetParam();
    fs::create_directories(file.parent_path());
    if (damage.directory)
        fs::create_directories(file / "inside");
    else
        writeFile(file, damage.bytes);
    auto store = makeStore();
    ASSERT_EQ(logs.lines().size(), 1u);
    EXPECT_EQ(logs.levelOf(logs.messages()[0]), "ERROR");
    // Nothing is lost before the next write replaces it with exactly what was readable ...
    EXPECT_TRUE(beside(kAside).empty());
    store->setObject("new", 1);
    store->flush();
    auto expected = damage.kept;
    expected["new"] = 1;
    EXPECT_EQ(onDisk(), expected);
    // ... which first moves the damaged one aside, byte for byte.
    const auto aside = beside(kAside);
    ASSERT_EQ(aside.size(), 1u);
    if (damage.directory)
        EXPECT_TRUE(fs::is_directory(aside[0] / "inside"));
    else
        EXPECT_EQ(readFile(aside[0]), damage.bytes);
    store.reset();
    // The rewritten file is sound: the next start says nothing.
    EXPECT_EQ(makeStore()->object("new"), json(1));
    EXPECT_EQ(logs.lines().size(), 1u);
}

INSTANTIATE_TEST_SUITE_P(
    Shapes, DamagedStateFileTest,
    ::testing::Values(
        Damage{"empty", "", json::object()},
        Damage{"truncated", R"({"k":"complete","l":["a","b)", {{"k", "complete"}}},
        Damage{"tornInKey", R"({"k":1,"bad)", {{"k", 1}}},
        Damage{
            "brokenMember", R"({"a":1,"bad":tru,"c":{"d":[1]}})", {{"a", 1}, {"c", {{"d", {1}}}}}},
        Damage{"invalidUtf8Member", "{\"bad\":\"\xc3\x28\",\"k\":true}", {{"k", true}}},
        Damage{"trailingJunk", R"({"k":"v"} trailing)", {{"k", "v"}}},
        Damage{"topLevelArray", R"([{"k":"v"}])", json::object()},
        Damage{"binary", std::string("\x00\xff\xfe{\x89PNG\r\n\x1a\n", 12), json::object()},
        Damage{"deepMember",
               R"({"k":2,"bad":)" + std::string(100000, '[') + std::string(100000, ']') + "}",
               {{"k", 2}}},
        Damage{"deepUnclosed", "{\"bad\":" + std::string(200000, '{'), json::object()},
        Damage{"tenMegabytesOfJunk", "{\"k\":\"" + std::string(10 << 20, 'x') + "\"}",
               json::object()},
        Damage{"directory", "", json::object(), true}),
    [](const auto& info) { return std::string(info.param.name); });

// A game can be killed at any moment. A process recording watched marks as fast as
// a player would is killed with SIGKILL at random times: the file must always
// parse and hold every mark older than the save window.
using Clock = std::chrono::steady_clock;
constexpr const char* kKey = "zelkin.playlistSDK.completedVideosByPlaylist";

// The child: the real thread queue and store, one new mark every 20 ms, each
// reported on `out` once the store holds it.
[[noreturn]] void recordMarks(const fs::path& file, int out) {
    VPLogger::setEnabled(false);
    auto queue = std::make_shared<ThreadMainQueue>();
    auto store = std::make_shared<FileUserDefaults>(file, queue);
    json marks = json::array();
    for (int mark = 0;; ++mark) {
        queue->sync([&] {
            marks.push_back(std::to_string(mark));
            store->setObject(kKey, json{{"pl", marks}});
        });
        if (::write(out, &mark, sizeof mark) != sizeof mark) ::_exit(1);
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

TEST(MarksSurviveKill, FileAlwaysParsesAndLosesAtMostTheLastSecond) {
    ScratchDir dir;
    const fs::path file = dir.path / "UserDefaults.json";
    std::mt19937 random(std::random_device{}());
    // The save window is one second; fsync and scheduling get a little slack.
    const auto lossWindow = std::chrono::milliseconds(1250);
    for (int run = 0; run < 20; ++run) {
        SCOPED_TRACE("run " + std::to_string(run));
        int fds[2];
        ASSERT_EQ(::pipe(fds), 0);
        const pid_t child = ::fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            ::close(fds[0]);
            recordMarks(file, fds[1]);
        }
        ::close(fds[1]);
        std::map<int, Clock::time_point> seen;
        const auto killAt = Clock::now() + std::chrono::milliseconds(
                                               std::uniform_int_distribution(300, 2500)(random));
        while (Clock::now() < killAt) {
            pollfd p{fds[0], POLLIN, 0};
            if (::poll(&p, 1, 10) <= 0) continue;
            int mark = 0;
            if (::read(fds[0], &mark, sizeof mark) == sizeof mark) seen[mark] = Clock::now();
        }
        ::kill(child, SIGKILL);
        const auto killed = Clock::now();
        ASSERT_EQ(::waitpid(child, nullptr, 0), child);
        ::close(fds[0]);
        size_t saved = 0;
        if (fs::exists(file)) {  // whenever there is a file, it is whole
            const auto parsed = json::parse(readFile(file), nullptr, false);
            ASSERT_TRUE(parsed.is_object());
            saved = parsed.value(kKey, json::object()).value("pl", json::array()).size();
        }
        // Marks are appended in order: every one reported before the window is saved.
        for (const auto& [mark, when] : seen)
            if (killed - when >= lossWindow) {
                EXPECT_GT(saved, static_cast<size_t>(mark));
            }
        fs::remove(file);
    }
}

}  // namespace
}  // namespace kavelin
