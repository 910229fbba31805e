// Reads the pipes of all processes, splits what comes into lines, and hands each line on: to the
// queue of the log or to the writer of files. Neither makes the reader wait, so no process waits
// for a logger or a file.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "main/common/clock.h"
#include "output/file_writer.h"
#include "output/line_tail.h"
#include "output/output_pipe.h"
#include "output/output_records.h"
#include "output/rate_limit.h"
#include "wire/unique_fd.h"

namespace ProcMgr::Output {

// Used by one thread, that of the relay.
class PipeLoop {
public:
    // A turn also ends when `wakeFd`, an eventfd that does not block, is readable; the turn resets
    // it. All arguments must outlive this object. Throws std::system_error when the kernel has no
    // descriptor left.
    PipeLoop(int wakeFd, OutputRecords& records, FileWriter& files, std::atomic<uint64_t>& dropped);

    // Reads these pipes, too, until their ends. A service has two at most: of a third one the
    // oldest, which a process has inherited from one that has ended, is closed.
    void Add(OutputPipes pipes);

    // Waits until there is something to do, for at most `patience`, and does it. Returns the time
    // that this has taken after the wait; 0 when no pipe was read.
    std::chrono::nanoseconds Turn(std::chrono::milliseconds patience);

    // Takes the lines without an end as they are and closes all pipes.
    void Finish();

private:
    static constexpr size_t READ_MAX = size_t{64} << 10;  // bytes of one pipe in one turn
    static constexpr size_t EVENTS_MAX = 64;              // pipes in one turn
    static constexpr size_t FLOWS_MAX = 8192;
    static constexpr size_t PIPES_OF_SERVICE_MAX = 2;

    // What is known of one service while it writes.
    struct Flow {
        OutputKind kind = OutputKind::INHERIT;
        RateLimit limit{0};
        uint64_t leftOut = 0;    // lines beyond the limit since the last report
        SteadyTime reportAt{};   // of leftOut, when it is not 0; else the earliest time of one
        std::vector<int> pipes;  // oldest first
    };

    using Pipe = OutputPipes::value_type;

    // Begins to read the pipes that have been added. Those that the kernel refuses for the moment
    // stay among them.
    void WatchAdded();
    void BeginFlow(const Pipe& pipe);
    void CloseOldest(const Flow& flow);
    static void SetKind(Flow& flow, OutputKind kind);
    int TimeoutOf(std::chrono::milliseconds patience) const;

    // True when something was read. At its end the pipe is closed.
    bool Read(int fd);
    // Forgets what an earlier pipe has brought, which is left only after a failure.
    void BeginBytes();
    void TakeBytes(Pipe& pipe, std::string_view bytes);
    // Leaves out all but the last lines; returns the rest.
    std::string_view SkipLines(OutputPipe& pipe, Flow& flow, std::string_view bytes);
    void TakeLine(const OutputPipe& pipe, Flow& flow, std::string_view line);
    void LeaveOut(const std::string& service, Flow& flow, uint64_t count);
    // Hands the lines on that TakeLine() has gathered.
    void HandOn(const OutputPipe& pipe);
    void SetFlush(Pipe& pipe, bool isNewLine);
    void Flush(Pipe& pipe);
    void Close(OutputPipes::iterator pipe);
    void FlushDue();
    void ReportDue(SteadyTime until);

    const int wakeFd_;
    OutputRecords& records_;
    FileWriter& files_;
    std::atomic<uint64_t>& dropped_;
    const Wire::UniqueFd epoll_;

    OutputPipes added_;  // not watched yet
    OutputPipes pipes_;
    std::map<std::string, Flow> flows_;                     // by the service
    std::set<std::pair<SteadyTime, int>> flushes_;          // pipes with a line without an end
    std::set<std::pair<SteadyTime, std::string>> reports_;  // services with lines left out
    SteadyTime now_{};                                      // of the present turn

    // What the present pipe has brought.
    std::array<char, READ_MAX> buffer_;
    LineTail tail_;
    std::string fileLines_;
    size_t lineCount_ = 0;
};

}  // namespace ProcMgr::Output
