// The logging client against the logging stand-in found by its bare name:
// present and without NvkLFFlush (counts as absent); and the log switch,
// which must leave the library and the arguments alone while off. The
// plug-in's messages in the log, and the plug-in without the library, are
// the host-level logging cases'.
#include "util/logging_client.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

#include "device/device_test_support.h"

namespace {

using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::StartsWith;
using Client = Nvk::utilities::ClLoggingFacilityClient;

using kr7test::Resident;

// Points the stand-in (read at its first message) at an empty file of its
// own and lets every level through; leaves logging off behind it.
class LogFileTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(nullptr, Client::m_fpLogInstance.load());
        m_path = ::testing::TempDir() + "kr7_log_XXXXXX";
        const int fd = mkstemp(m_path.data());
        ASSERT_GE(fd, 0);
        close(fd);
        setenv("KR7_LOG_FILE", m_path.c_str(), 1);
        setenv("KR7_LOG_LEVEL", "7", 1);
    }
    void TearDown() override {
        Client::Destroy();
        unsetenv("KR7_LOG_FILE");
        unsetenv("KR7_LOG_LEVEL");
        std::remove(m_path.c_str());
    }
    std::string Text() const {
        std::ifstream in(m_path);
        std::stringstream text;
        text << in.rdbuf();
        return text.str();
    }

    std::string m_path;
};

using Virtual_LoggingClient = LogFileTest;
using NoFlush_LoggingClient = LogFileTest;

TEST_F(Virtual_LoggingClient, LoadsOnceAndWritesUntilDestroyed) {
    ASSERT_FALSE(Resident("libnorvaklf.so"));
    Client::Create();
    Client* const instance = Client::m_fpLogInstance.load();
    ASSERT_NE(nullptr, instance);
    EXPECT_NE(nullptr, Client::m_fpLog.load());
    EXPECT_NE(nullptr, Client::m_fpFlush.load());
    Client::Create();
    EXPECT_EQ(instance, Client::m_fpLogInstance.load());
    EXPECT_TRUE(Resident("libnorvaklf.so"));

    Nvk::utilities::Log(Nvk::utilities::kLogError, "value %d and %s", 42, "text");
    std::istringstream lines(Text());
    std::string line;
    ASSERT_TRUE(std::getline(lines, line));
    EXPECT_THAT(line, EndsWith("] ERROR: value 42 and text"));
    EXPECT_THAT(line, HasSubstr(" [tid "));
    EXPECT_FALSE(std::getline(lines, line)) << line;

    Client::Destroy();
    EXPECT_EQ(nullptr, Client::m_fpLogInstance.load());
    EXPECT_FALSE(Resident("libnorvaklf.so"));
    const std::string before = Text();
    Nvk::utilities::Log(Nvk::utilities::kLogError, "after the end");
    EXPECT_EQ(before, Text());
}

TEST_F(NoFlush_LoggingClient, ALibraryWithoutFlushCountsAsAbsent) {
    const std::string failure = kr7test::Thrown([] { Client::Create(); });
    EXPECT_THAT(failure, StartsWith("-202: "));
    EXPECT_THAT(failure, HasSubstr("NvkLFFlush"));
    EXPECT_EQ(nullptr, Client::m_fpLogInstance.load());
    EXPECT_NE(nullptr, Client::m_fpLog.load());  // resolved before the gap
    EXPECT_FALSE(Resident("libnorvaklf.so"));
    // The entry points into an unloaded library; calling it would crash or
    // write to the file.
    Nvk::utilities::Log(Nvk::utilities::kLogError, "nobody hears this %d", 1);
    EXPECT_EQ("", Text());
}

// A stand-in for the library's entry that records what reaches it.
struct Received {
    int calls = 0;
    NvkLFLogLevels level = NvkLFEmergency;
    const char* format = nullptr;
    std::string text;
} g_received;

__attribute__((format(printf, 2, 3))) NvkLFResult Record(NvkLFLogLevels level, const char* format,
                                                         ...) {
    ++g_received.calls;
    g_received.level = level;
    g_received.format = format;
    char text[128];
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof(text), format, args);
    va_end(args);
    g_received.text = text;
    return NvkLFResult{1, 0};
}

// Puts the switch and the entry back however the test ends.
struct RestoreSwitch {
    Client::LogFn log = Client::m_fpLog.load();
    ~RestoreSwitch() {
        Client::m_fpLogInstance.store(nullptr);
        Client::m_fpLog.store(log);
    }
};

TEST(LoggingClient, TheSwitchDecidesWhetherAnythingIsFormatted) {
    RestoreSwitch restore;
    g_received = Received{};
    Client::m_fpLog.store(&Record);
    ASSERT_EQ(nullptr, Client::m_fpLogInstance.load());
    // A string argument that must not be read while logging is off.
    const char* const unreadable = reinterpret_cast<const char*>(16);
    Nvk::utilities::Log(Nvk::utilities::kLogError, "%s", unreadable);
    EXPECT_EQ(0, g_received.calls);

    // Switched on (the switch is only compared, never followed), level,
    // format and arguments arrive as given.
    static int token;
    Client::m_fpLogInstance.store(reinterpret_cast<Client*>(&token));
    const char* const format = "%d of %s";
    Nvk::utilities::Log(Nvk::utilities::kLogState, format, 3, "four");
    EXPECT_EQ(1, g_received.calls);
    EXPECT_EQ(NvkLFInfo, g_received.level);
    EXPECT_EQ(format, g_received.format);
    EXPECT_EQ("3 of four", g_received.text);
}

}  // namespace
