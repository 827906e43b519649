#include "process_state.h"

#include <dirent.h>
#include <malloc.h>

#include <algorithm>
#include <fstream>
#include <sstream>
#include <thread>

namespace soak {

namespace {

int CountEntries(const char* folder) {
    DIR* dir = opendir(folder);
    if (dir == nullptr) {
        return -1;
    }
    int count = 0;
    while (const dirent* entry = readdir(dir)) {
        if (entry->d_name[0] != '.') {
            ++count;
        }
    }
    closedir(dir);
    return count;
}

std::string FirstLine(const std::string& path) {
    std::ifstream in(path);
    std::string line;
    std::getline(in, line);
    return line;
}

}  // namespace

ProcessFigures ReadProcessFigures() {
    // Freed blocks inside the heap stay resident until the allocator hands
    // their pages back; without that, resident memory would show the
    // heap's high-water mark rather than what is still allocated.
    malloc_trim(0);
    ProcessFigures figures;
    figures.threads = CountEntries("/proc/self/task");
    // opendir holds one descriptor of its own while the folder is read.
    figures.fds = CountEntries("/proc/self/fd") - 1;
    std::ifstream maps("/proc/self/maps");
    std::string line;
    while (std::getline(maps, line)) {
        ++figures.mappings;
    }
    std::ifstream status("/proc/self/status");
    while (std::getline(status, line)) {
        if (line.compare(0, 6, "VmRSS:") == 0) {
            figures.rssKiB = std::stol(line.substr(6));
        }
    }
    return figures;
}

ProcessFigures SettledFigures(int threads, std::chrono::milliseconds patience) {
    const auto deadline = std::chrono::steady_clock::now() + patience;
    ProcessFigures figures = ReadProcessFigures();
    while (figures.threads > threads && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
        figures = ReadProcessFigures();
    }
    return figures;
}

int SettledThreads(int threads, std::chrono::milliseconds patience) {
    const auto deadline = std::chrono::steady_clock::now() + patience;
    int count = CountEntries("/proc/self/task");
    while (count > threads && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
        count = CountEntries("/proc/self/task");
    }
    return count;
}

std::vector<std::string> MappedObjects(const std::vector<std::string>& names) {
    std::vector<std::string> found;
    std::ifstream maps("/proc/self/maps");
    std::string line;
    while (std::getline(maps, line)) {
        const std::size_t slash = line.find('/');
        if (slash == std::string::npos) {
            continue;
        }
        const std::string path = line.substr(slash);
        const std::string base = path.substr(path.rfind('/') + 1);
        const bool wanted = std::any_of(names.begin(), names.end(), [&](const std::string& name) {
            return base.compare(0, name.size(), name) == 0;
        });
        if (wanted && std::find(found.begin(), found.end(), path) == found.end()) {
            found.push_back(path);
        }
    }
    return found;
}

std::string DescribeThreads(int pid) {
    const std::string task = "/proc/" + std::to_string(pid) + "/task";
    std::ostringstream out;
    DIR* dir = opendir(task.c_str());
    if (dir == nullptr) {
        return "";
    }
    while (const dirent* entry = readdir(dir)) {
        if (entry->d_name[0] == '.') {
            continue;
        }
        const std::string base = task + "/" + entry->d_name;
        out << "  thread " << entry->d_name << " (" << FirstLine(base + "/comm") << ") waits in "
            << FirstLine(base + "/wchan") << "\n";
    }
    closedir(dir);
    return out.str();
}

}  // namespace soak
