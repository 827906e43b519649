#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "logging/norvaklf.h"

namespace {

using LogFn = NvkLFResult (*)(NvkLFLogLevels, const char*, ...);
using FlushFn = decltype(&::NvkLFFlush);

std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

std::vector<std::string> Lines(const std::string& text) {
    std::vector<std::string> lines;
    std::stringstream s(text);
    for (std::string line; std::getline(s, line);) {
        lines.push_back(line);
    }
    return lines;
}

class LoggingTest : public ::testing::Test {
protected:
    void SetUp() override {
        const std::string base = ::testing::TempDir() + "kr7_lf_" +
                                 ::testing::UnitTest::GetInstance()->current_test_info()->name();
        m_logFile = base + ".log";
        m_stderrFile = base + ".stderr";
        std::remove(m_logFile.c_str());
        std::remove(m_stderrFile.c_str());
    }
    void TearDown() override {
        std::remove(m_logFile.c_str());
        std::remove(m_stderrFile.c_str());
    }

    // Runs `body` in a child process with the given environment and its
    // standard error captured; returns the child's exit status.
    int InChild(const char* file, const char* level, const std::function<int(LogFn)>& body) {
        std::fflush(nullptr);
        const pid_t pid = fork();
        if (pid == 0) {
            const int fd = open(m_stderrFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            dup2(fd, STDERR_FILENO);
            file ? setenv("KR7_LOG_FILE", file, 1) : unsetenv("KR7_LOG_FILE");
            level ? setenv("KR7_LOG_LEVEL", level, 1) : unsetenv("KR7_LOG_LEVEL");
            void* lib = dlopen(KR7_LF_PATH, RTLD_NOW);
            if (lib == nullptr) {
                _exit(90);
            }
            auto log = reinterpret_cast<LogFn>(dlsym(lib, "NvkLFLog"));
            _exit(log ? body(log) : 91);
        }
        int status = -1;
        waitpid(pid, &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : 100 + status;
    }

    std::string m_logFile, m_stderrFile;
};

const std::regex kLine(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6} \[tid (\d+)\] ([A-Z]+-?\d*): (.*))");

TEST_F(LoggingTest, ExportsBothEntriesAndTheTestVariantLacksFlush) {
    void* lib = dlopen(KR7_LF_PATH, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(lib, nullptr) << dlerror();
    EXPECT_NE(dlsym(lib, "NvkLFLog"), nullptr);
    EXPECT_NE(dlsym(lib, "NvkLFFlush"), nullptr);
    dlclose(lib);

    void* variant = dlopen(KR7_LF_NOFLUSH_PATH, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(variant, nullptr) << dlerror();
    EXPECT_NE(dlsym(variant, "NvkLFLog"), nullptr);
    EXPECT_EQ(dlsym(variant, "NvkLFFlush"), nullptr);
    EXPECT_NE(dlerror(), nullptr);
    dlclose(variant);
}

TEST_F(LoggingTest, FileGetsFormattedLinesUpToTheThreshold) {
    const int status = InChild(m_logFile.c_str(), "4", [](LogFn log) {
        const NvkLFResult written = log(NvkLFError, "QV2 scanner. Error number: 0x%x", 0x2a);
        const NvkLFResult filtered = log(NvkLFTrace, "trace %d", 1);
        log(NvkLFWarning, "warning with newline\n");
        log(NvkLFInfo, "info");
        log(NvkLFLogLevels(-3), "odd level");
        if (written.status != 1 || written.length <= 0 || filtered.status != 0) {
            return 1;
        }
        return log(NvkLFError, nullptr).status == -1 ? 0 : 2;
    });
    ASSERT_EQ(status, 0);
    EXPECT_EQ(ReadFile(m_stderrFile), "");
    const auto lines = Lines(ReadFile(m_logFile));
    ASSERT_EQ(lines.size(), 3u) << ReadFile(m_logFile);
    std::smatch m;
    ASSERT_TRUE(std::regex_match(lines[0], m, kLine)) << lines[0];
    EXPECT_EQ(m[2], "ERROR");
    EXPECT_EQ(m[3], "QV2 scanner. Error number: 0x2a");
    ASSERT_TRUE(std::regex_match(lines[1], m, kLine)) << lines[1];
    EXPECT_EQ(m[2], "WARNING");
    EXPECT_EQ(m[3], "warning with newline");
    ASSERT_TRUE(std::regex_match(lines[2], m, kLine)) << lines[2];
    EXPECT_EQ(m[2], "LEVEL-3");
}

TEST_F(LoggingTest, StandardErrorByDefaultAndLevelNames) {
    ASSERT_EQ(InChild(nullptr, nullptr,
                      [](LogFn log) {
                          log(NvkLFWarning, "default %s", "warning");
                          log(NvkLFNotice, "default notice");
                          return 0;
                      }),
              0);
    auto lines = Lines(ReadFile(m_stderrFile));
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].find("WARNING: default warning"), std::string::npos);

    ASSERT_EQ(InChild("", "Trace",
                      [](LogFn log) {
                          log(NvkLFTrace, "traced");
                          return 0;
                      }),
              0);
    EXPECT_NE(ReadFile(m_stderrFile).find("TRACE: traced"), std::string::npos);

    ASSERT_EQ(InChild(nullptr, "off",
                      [](LogFn log) { return log(NvkLFEmergency, "never").status == 0 ? 0 : 1; }),
              0);
    EXPECT_EQ(ReadFile(m_stderrFile), "");
}

TEST_F(LoggingTest, UnopenableFileFallsBackToStandardError) {
    const std::string dir = ::testing::TempDir() + "kr7_lf_no_such_dir/x.log";
    ASSERT_EQ(InChild(dir.c_str(), "error",
                      [](LogFn log) {
                          log(NvkLFError, "still here");
                          return 0;
                      }),
              0);
    const auto lines = Lines(ReadFile(m_stderrFile));
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_NE(lines[0].find("cannot open log file"), std::string::npos);
    EXPECT_NE(lines[1].find("ERROR: still here"), std::string::npos);
}

TEST_F(LoggingTest, ConcurrentLinesStayWholeAndInOrderPerThread) {
    constexpr int kThreads = 8, kLines = 300;
    const std::string longText(3000, 'x');
    const int status = InChild(m_logFile.c_str(), "7", [&](LogFn log) {
        std::vector<std::thread> threads;
        for (int t = 0; t < kThreads; ++t) {
            threads.emplace_back([&, t] {
                for (int i = 0; i < kLines; ++i) {
                    log(NvkLFTrace, "thread %d line %d %s", t, i,
                        i % 50 == 0 ? longText.c_str() : "");
                }
            });
        }
        for (auto& th : threads) {
            th.join();
        }
        void* self = dlopen(KR7_LF_PATH, RTLD_NOW | RTLD_NOLOAD);
        auto flush = reinterpret_cast<FlushFn>(dlsym(self, "NvkLFFlush"));
        flush();
        return 0;
    });
    ASSERT_EQ(status, 0);
    const auto lines = Lines(ReadFile(m_logFile));
    ASSERT_EQ(lines.size(), std::size_t(kThreads * kLines));
    std::vector<int> next(kThreads, 0);
    std::vector<std::string> tidOf(kThreads);
    for (const auto& line : lines) {
        std::smatch m;
        ASSERT_TRUE(std::regex_match(line, m, kLine)) << line.substr(0, 120);
        int t = -1, i = -1;
        ASSERT_EQ(std::sscanf(m[3].str().c_str(), "thread %d line %d", &t, &i), 2);
        ASSERT_TRUE(t >= 0 && t < kThreads);
        EXPECT_EQ(i, next[t]++);
        EXPECT_EQ(m[3].length(), (i % 50 == 0 ? longText.size() : 0) +
                                     std::snprintf(nullptr, 0, "thread %d line %d ", t, i));
        if (tidOf[t].empty()) {
            tidOf[t] = m[1];
        }
        EXPECT_EQ(m[1], tidOf[t]);
    }
    EXPECT_NE(tidOf[0], tidOf[1]);
}

}  // namespace
