// What the soak watches of its own process, read from /proc/self: threads,
// open descriptors, memory mappings, resident memory and which shared
// objects are mapped.
#pragma once

#include <chrono>
#include <string>
#include <vector>

namespace soak {

struct ProcessFigures {
    int threads = 0;   // entries of /proc/self/task
    int fds = 0;       // entries of /proc/self/fd, without the one reading it
    int mappings = 0;  // lines of /proc/self/maps
    long rssKiB = 0;   // VmRSS of /proc/self/status, free heap pages handed back first
};

ProcessFigures ReadProcessFigures();

// A joined thread leaves /proc/self/task a moment after pthread_join has
// returned. Reads the figures again until the thread count is at most
// `threads` or `patience` has passed; the last reading is returned.
ProcessFigures SettledFigures(int threads, std::chrono::milliseconds patience);
// The same for the thread count alone.
int SettledThreads(int threads, std::chrono::milliseconds patience);

// Paths of the mapped files whose base name begins with one of `names`
// (e.g. "libQV2ScanAPI.so"), each once.
std::vector<std::string> MappedObjects(const std::vector<std::string>& names);

// The thread names and kernel wait channels of process `pid`, one line per
// thread, for the report of a child that hangs.
std::string DescribeThreads(int pid);

}  // namespace soak
