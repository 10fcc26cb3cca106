#include "Kavelin/log/VPLogger.h"

#include <gtest/gtest.h>

#include <regex>

using namespace kavelin;

class VPLoggerTest : public ::testing::Test {
  protected:
    void SetUp() override {
        VPLogger::setSink([this](const std::string& line) { lines.push_back(line); });
    }
    void TearDown() override {
        VPLogger::setSink(nullptr);
        VPLogger::setEnabled(true);
    }
    std::vector<std::string> lines;
};

TEST_F(VPLoggerTest, LinesCarryTagTimestampLevelFileLineAndMessageUntilSwitchedOff) {
    VPLogger::log("🎯 Ad completed, resuming playback");
    const int line = __LINE__ - 1;
    ASSERT_EQ(lines.size(), 1u);
    const std::regex format(
        R"(\[QORVA_VIDEO_PLAYER\] - \d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2} : \[LOG\] \[VPLogger_test\.cpp:(\d+)\] 🎯 Ad completed, resuming playback)");
    std::smatch m;
    ASSERT_TRUE(std::regex_match(lines[0], m, format)) << lines[0];
    EXPECT_EQ(std::stoi(m[1]), line);

    VPLogger::warning("⏳ Waiting for episodes...");
    VPLogger::error("❌ Playlist not found");
    VPLogger::print("", LogType::log, "Plain.swift", 7);
    ASSERT_EQ(lines.size(), 4u);
    // Levels are named as the host filters them.
    EXPECT_NE(lines[1].find(" : [WARNING] ["), std::string::npos) << lines[1];
    EXPECT_NE(lines[2].find(" : [ERROR] ["), std::string::npos) << lines[2];
    EXPECT_TRUE(logTypeFromRaw("WARNING") == LogType::warning && !logTypeFromRaw("warning"));
    // A file without a slash is printed whole; an empty message keeps the blank.
    EXPECT_TRUE(lines[3].ends_with("[LOG] [Plain.swift:7] ")) << lines[3];

    VPLogger::setEnabled(false);
    VPLogger::log("hidden");
    VPLogger::error("hidden too");
    VPLogger::setEnabled(true);
    VPLogger::log("visible");
    ASSERT_EQ(lines.size(), 5u);
    EXPECT_TRUE(lines[4].ends_with("] visible")) << lines[4];
}
