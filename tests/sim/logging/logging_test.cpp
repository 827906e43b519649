#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <functional>
#include <regex>
#include <thread>

#include "closed/norvaklf.h"

namespace {

using LogFn = NvkLFResult (*)(NvkLFLogLevels, const char*, ...);

const std::regex kLine(
    R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6} \[tid (\d+)\] ([A-Z]+-?\d*): (.*))");

std::vector<std::string> Lines(const std::string& path) {
    std::ifstream in(path);
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

// The library reads its environment once per process, so each case runs in
// a child with standard error captured in a file; the child's exit code is
// the body's result.
class Logging : public ::testing::Test {
protected:
    const std::string m_log = ::testing::TempDir() + "kr7_lf.log";
    const std::string m_err = ::testing::TempDir() + "kr7_lf.stderr";

    void SetUp() override { std::remove(m_log.c_str()); }
    int InChild(const char* file, const char* level, const std::function<int(LogFn)>& body) {
        const pid_t pid = fork();
        if (pid == 0) {
            dup2(open(m_err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), STDERR_FILENO);
            file ? setenv("KR7_LOG_FILE", file, 1) : unsetenv("KR7_LOG_FILE");
            level ? setenv("KR7_LOG_LEVEL", level, 1) : unsetenv("KR7_LOG_LEVEL");
            void* lib = dlopen(KR7_LF_PATH, RTLD_NOW);
            _exit(lib ? body(reinterpret_cast<LogFn>(dlsym(lib, "NvkLFLog"))) : 90);
        }
        int status = -1;
        waitpid(pid, &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : 100;
    }
};

TEST_F(Logging, FileGetsFormattedLinesUpToTheThreshold) {
    ASSERT_EQ(InChild(m_log.c_str(), "4",
                      [](LogFn log) {
                          const NvkLFResult written = log(NvkLFError, "Error number: 0x%x", 42);
                          const NvkLFResult filtered = log(NvkLFTrace, "trace");
                          log(NvkLFWarning, "with newline\n");
                          log(NvkLFLogLevels(-3), "odd level");
                          return written.status == 1 && written.length > 20 &&
                                 filtered.status == 0 && log(NvkLFError, nullptr).status == -1;
                      }),
              1);
    const auto lines = Lines(m_log);
    const std::vector<std::string> expected = {"ERROR: Error number: 0x2a", "WARNING: with newline",
                                               "LEVEL-3: odd level"};
    ASSERT_EQ(lines.size(), expected.size());
    for (size_t i = 0; i < lines.size(); ++i) {
        std::smatch m;
        ASSERT_TRUE(std::regex_match(lines[i], m, kLine)) << lines[i];
        EXPECT_EQ(m[2].str() + ": " + m[3].str(), expected[i]);
    }
    EXPECT_TRUE(Lines(m_err).empty());
}

TEST_F(Logging, StandardErrorByDefaultOrWhenTheFileCannotBeOpened) {
    auto twoLevels = [](LogFn log) {
        return log(NvkLFWarning, "warning"), log(NvkLFNotice, "notice"), 0;
    };
    ASSERT_EQ(InChild(nullptr, nullptr, twoLevels), 0);  // default threshold: warning
    auto lines = Lines(m_err);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].find("WARNING: warning"), std::string::npos);
    ASSERT_EQ(InChild((m_log + ".d/x.log").c_str(), "Notice", twoLevels), 0);
    lines = Lines(m_err);
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_NE(lines[0].find("cannot open log file"), std::string::npos);
    EXPECT_NE(lines[2].find("NOTICE: notice"), std::string::npos);
    ASSERT_EQ(InChild(nullptr, "off", twoLevels), 0);
    EXPECT_TRUE(Lines(m_err).empty());
}

TEST_F(Logging, ConcurrentLinesStayWholeAndInOrderPerThread) {
    constexpr int kThreads = 8, kLines = 300;
    const std::string longText(3000, 'x');
    ASSERT_EQ(InChild(m_log.c_str(), "trace",
                      [&](LogFn log) {
                          std::vector<std::thread> threads;
                          for (int t = 0; t < kThreads; ++t)
                              threads.emplace_back([&, t] {
                                  for (int i = 0; i < kLines; ++i)
                                      log(NvkLFTrace, "thread %d line %d %s", t, i,
                                          i % 50 ? "" : longText.c_str());
                              });
                          for (auto& th : threads)
                              th.join();
                          return 0;
                      }),
              0);
    const auto lines = Lines(m_log);
    ASSERT_EQ(lines.size(), std::size_t(kThreads * kLines));
    std::vector<int> next(kThreads, 0);
    std::vector<std::string> tids(kThreads);
    for (const auto& line : lines) {
        std::smatch m;
        int t = -1, i = -1, end = 0;
        ASSERT_TRUE(std::regex_match(line, m, kLine)) << line.substr(0, 120);
        ASSERT_EQ(std::sscanf(m[3].str().c_str(), "thread %d line %d %n", &t, &i, &end), 2);
        ASSERT_TRUE(t >= 0 && t < kThreads);
        EXPECT_EQ(i, next[t]++);
        EXPECT_EQ(m[3].length() - end, i % 50 ? 0 : longText.size());
        tids[t] = tids[t].empty() ? m[1].str() : tids[t];
        EXPECT_EQ(m[1], tids[t]);
    }
    EXPECT_NE(tids[0], tids[1]);
}

}  // namespace
