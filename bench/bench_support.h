// What the benchmarks share: the stamp file of their services, the daemon under measurement in a
// mount namespace of its own, and a few statistics.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace Bench {

// CLOCK_MONOTONIC in nanoseconds.
uint64_t Now();

// What a service writes into its slot when it starts.
struct Stamp {
    uint64_t time = 0;  // CLOCK_MONOTONIC in nanoseconds
    int64_t pid = 0;
};

// A file with one slot for each service.
class StampFile {
public:
    explicit StampFile(size_t slots, const std::string& name = "stamps");
    ~StampFile();
    StampFile(const StampFile&) = delete;
    StampFile& operator=(const StampFile&) = delete;

    const std::string& GetPath() const { return path_; }
    void Clear();
    // Waits until every slot has been written after `since` and returns the stamps; ends the
    // program after 60 s.
    std::vector<Stamp> WaitForAll(uint64_t since = 0) const;

private:
    std::vector<Stamp> Read() const;

    size_t slots_;
    std::string path_;
    int fd_;
};

// Makes /run, /var/log and /dev/log private to this process and its children. With `withLogger`
// something reads /dev/log, as a system logger does; without, there is none, as in early boot.
void EnterPrivateSystem(bool withLogger);
// Then: gives it the control groups that every device has, as plain files, all cores in CtrlCPU.
void LayOutGroups();

// Starts a program with its arguments; returns its pid.
pid_t Spawn(const std::vector<std::string>& command);
// SIGTERM, then waits for the exit. Returns the wait status.
int Stop(pid_t pid);

// The directory for manifests and stamps, inside the private /run.
std::string WriteFile(const std::string& name, const std::string& text);

// Milliseconds from `start` to the last of the stamps.
double SinceStart(uint64_t start, const std::vector<Stamp>& stamps);

double Median(std::vector<double> values);
double Percentile(std::vector<double> values, double percent);

// Proportional set size in KiB, and processor time of all its threads in nanoseconds.
long PssOf(pid_t pid);
uint64_t CpuTimeOf(pid_t pid);

}  // namespace Bench
