// A benchmark configuration in a process of its own, so that one cannot
// warm, pollute or crash the next: the child runs it and writes its JSON
// report down a pipe.
#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>

namespace kr7bench {

using Report = nlohmann::ordered_json;

// Runs `work`, which returns a Report, in a forked child; returns that
// report. Throws when the child fails (its reason printed under `label`).
template <class Work>
Report InChild(const std::string& label, Work work) {
    int ends[2];
    if (pipe(ends) != 0) {
        throw std::runtime_error("pipe failed");
    }
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child < 0) {
        close(ends[0]);
        close(ends[1]);
        throw std::runtime_error("fork failed");
    }
    if (child == 0) {
        close(ends[0]);
        int code = 0;
        std::string json;
        try {
            json = work().dump();
        } catch (const std::exception& e) {
            std::fprintf(stderr, "%s: %s\n", label.c_str(), e.what());
            code = 1;
        }
        std::size_t written = 0;
        while (written < json.size()) {
            const ssize_t n = write(ends[1], json.data() + written, json.size() - written);
            if (n <= 0) {
                break;
            }
            written += static_cast<std::size_t>(n);
        }
        close(ends[1]);
        std::fflush(nullptr);
        _exit(code);
    }
    close(ends[1]);
    std::string json;
    char buffer[65536];
    ssize_t n = 0;
    while ((n = read(ends[0], buffer, sizeof buffer)) > 0) {
        json.append(buffer, static_cast<std::size_t>(n));
    }
    close(ends[0]);
    int status = 0;
    waitpid(child, &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0 || json.empty()) {
        throw std::runtime_error("configuration failed: " + label);
    }
    return Report::parse(json);
}

// Writes the reports of a run to `path`; false (the reason printed) when
// that fails.
inline bool WriteReport(const std::string& path, const Report& all) {
    std::ofstream file(path);
    file << all.dump() << "\n";
    if (!file.flush()) {
        std::perror(path.c_str());
        return false;
    }
    return true;
}

// A figure of a report; -1 when it has none.
inline double Field(const Report& json, const char* key) {
    return json.value(key, -1.0);
}

}  // namespace kr7bench
