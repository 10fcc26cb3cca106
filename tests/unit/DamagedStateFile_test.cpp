#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "Kavelin/Platform/UserDefaults.h"
#include "Kavelin/Platform/VirtualMainQueue.h"
#include "support/VirtualPlatform.h"

// A crash, a full disk or a curious user can leave anything at the state file's
// path. Whatever is there, the library starts, keeps every entry it can read,
// says so once, and keeps the damaged file aside instead of overwriting it.
namespace kavelin {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using testing::readFile;

std::string nested(size_t depth) {
    return std::string(depth, '[') + std::string(depth, ']');
}

struct Damage {
    const char* name;
    std::string bytes;  // empty with `directory`: a directory stands at the path
    json kept;
    bool directory = false;
};

class DamagedStateFileTest : public ::testing::TestWithParam<Damage> {
  protected:
    std::vector<fs::path> asideFiles() const {
        std::vector<fs::path> out;
        for (const auto& entry : fs::directory_iterator(dir.path))
            if (entry.path().filename().string().starts_with("UserDefaults.json.corrupt-"))
                out.push_back(entry.path());
        return out;
    }

    testing::TempDir dir;
    fs::path file = dir.path / "UserDefaults.json";
    std::shared_ptr<VirtualMainQueue> queue = std::make_shared<VirtualMainQueue>();
};

TEST_P(DamagedStateFileTest, KeepsReadableEntriesLogsOnceAndMovesTheFileAside) {
    const auto& damage = GetParam();
    if (damage.directory) {
        fs::create_directories(file / "inside");
    } else {
        std::ofstream(file, std::ios::binary) << damage.bytes;
    }
    testing::LogCapture log;
    auto store = std::make_unique<UserDefaults>(file, queue);
    for (const auto& [key, value] : damage.kept.items()) EXPECT_EQ(store->object(key), value);
    EXPECT_FALSE(store->object("bad").has_value());
    EXPECT_EQ(log.lines().size(), 1u);
    EXPECT_EQ(log.levelOf(log.messages().at(0)), "ERROR");

    // Nothing is lost before the next write replaces the file ...
    EXPECT_TRUE(asideFiles().empty());
    store->setObject("new", 1);
    store->flush();
    auto expected = damage.kept;
    expected["new"] = 1;
    EXPECT_EQ(json::parse(readFile(file)), expected);
    // ... which first moves the damaged one aside, byte for byte.
    const auto aside = asideFiles();
    ASSERT_EQ(aside.size(), 1u);
    if (damage.directory)
        EXPECT_TRUE(fs::is_directory(aside[0] / "inside"));
    else
        EXPECT_EQ(readFile(aside[0]), damage.bytes);
    store.reset();
    EXPECT_EQ(log.lines().size(), 1u);

    // The rewritten file is sound: the next start says nothing.
    log.clear();
    EXPECT_EQ(UserDefaults(file, queue).object("new"), json(1));
    EXPECT_TRUE(log.lines().empty());
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
        Damage{"deepMember", R"({"k":2,"bad":)" + nested(100000) + "}", {{"k", 2}}},
        Damage{"deepUnclosed", "{\"bad\":" + std::string(200000, '{'), json::object()},
        Damage{"tenMegabytesOfJunk", "{\"k\":\"" + std::string(10 << 20, 'x') + "\"}",
               json::object()},
        Damage{"directory", "", json::object(), true}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace kavelin
