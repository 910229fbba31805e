// Shared by all benchmarks: the stamp file of their services, the private system that the measured
// daemon runs in, and statistics. Any failure ends the program.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace Bench {

// The number that follows `name` on the command line; `byDefault` when the name is not there.
int NumberOption(int argc, char** argv, std::string_view name, int byDefault);

// CLOCK_MONOTONIC in nanoseconds.
uint64_t Now();

// The record that a service writes into its slot when it starts.
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
    // Waits until every slot has a stamp later than `since` and returns the stamps. Ends the
    // program after 60 s.
    std::vector<Stamp> WaitForAll(uint64_t since = 0) const;

private:
    std::vector<Stamp> Read() const;

    size_t slots_;
    std::string path_;
    int fd_;
};

// Makes /run and /dev private to this process and its children. With `withLogger` a process reads
// /dev/log like a system logger; without, there is no /dev/log, as in early boot.
void EnterPrivateSystem(bool withLogger);
// Makes the control groups that every device has, as plain files, with all cores in CtrlCPU. Call
// it after EnterPrivateSystem().
void LayOutGroups();

// Starts a program with its arguments; returns its pid.
pid_t Spawn(const std::vector<std::string>& command);
// Sends SIGTERM and waits for the exit. Returns the raw wait status.
int Stop(pid_t pid);

// Writes a file below the private /run and returns its path.
std::string WriteFile(const std::string& name, const std::string& text);

// Milliseconds from `start` to the last of the stamps.
double SinceStart(uint64_t start, const std::vector<Stamp>& stamps);

double Median(std::vector<double> values);
double Percentile(std::vector<double> values, double percent);

// Proportional set size in KiB; -1 when it cannot be read.
long PssOf(pid_t pid);
// Processor time of all threads of the process in nanoseconds.
uint64_t CpuTimeOf(pid_t pid);

}  // namespace Bench
