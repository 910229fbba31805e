// Writes the lines of services to their files, on a thread of its own: a file system that is slow,
// full or dead holds up no service and no other thread. The files wait for each other: while one
// file system does not answer, no file is written, which the log says.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>

#include "main/common/clock.h"
#include "main/common/mutex.h"
#include "main/common/serial_worker.h"
#include "output/output_file.h"
#include "platform/manifest_output.h"

namespace ProcMgr::Output {

class FileWriter {
public:
    // `dropped` counts the lines that are not written; it must outlive this object.
    explicit FileWriter(std::atomic<uint64_t>& dropped) : dropped_(dropped) {}

    // Adds lines, each with its end, to the file of `config`, or drops them when too much waits.
    // With no lines the file is only opened, so that a failure is known before there is output. Any
    // thread; waits for nothing.
    void Add(const std::string& service, const OutputConfig& config, std::string_view lines)
        PROCMGR_EXCLUDES(mutex_);

    // Lines that were lost are reported by the next round that writes the file. Where none follows,
    // Remind() makes a round: it is called at the time of GetReminderTime() or later. Any thread;
    // neither waits.
    SteadyTime GetReminderTime() const PROCMGR_EXCLUDES(mutex_);
    void Remind(SteadyTime now) PROCMGR_EXCLUDES(mutex_);

    // Writes what waits and ends the thread. False when it still runs at `end`: this object must
    // then live until the process ends.
    bool Stop(SteadyTime end) PROCMGR_EXCLUDES(mutex_);

private:
    // The most bytes that wait for one file and for all.
    static constexpr size_t FILE_MAX = size_t{1} << 20;
    static constexpr size_t TOTAL_MAX = size_t{4} << 20;
    static constexpr size_t FILES_MAX = 4096;

    // What waits for one file.
    struct Work {
        std::string service;
        uint64_t size = 0;  // of the configuration
        std::string lines;
        uint64_t lost = 0;  // lines for which there was no room
    };
    // A file that has failed, or for which lines are lost.
    struct Trouble {
        std::string service;
        bool hasFailed = false;
        uint64_t lost = 0;  // lines since the last report; of a file that has failed, since then
        uint64_t told = 0;  // out of `lost`: a file that has failed is reported on once
        SteadyTime retryAt{};
        SteadyTime reportAt{};  // of a file that has failed: when its service has become silent
    };
    // The file that is being written, and when the log says that it does not come to an end.
    struct Present {
        std::string path;
        SteadyTime stallAt = SteadyTime::max();
        SteadyTime nextReport{};
    };

    static uint64_t CountLines(std::string_view lines);
    void Put(const std::string& service, const OutputConfig& config, std::string_view lines)
        PROCMGR_REQUIRES(mutex_);
    // Gives the thread its job, unless it has it.
    void Post() PROCMGR_EXCLUDES(mutex_);
    // Says in the log, once, that the thread does not come to an end with a file.
    void ReportStall(SteadyTime now) PROCMGR_EXCLUDES(mutex_);
    // The operations of the thread.
    void WriteAll() PROCMGR_EXCLUDES(mutex_);
    void SetPresent(const std::string& path) PROCMGR_EXCLUDES(mutex_);
    void WriteOne(const std::string& path, const Work& work);
    void Lose(Trouble& trouble, std::string_view lines);
    static void NoteFailure(const std::string& path, const AppendResult& result, Trouble& trouble);
    // True when nothing has to be remembered of the file.
    static bool NoteSuccess(const std::string& path, Trouble& trouble);
    // Reports the lost lines for which it is time, at the end all.
    void ReportLost(bool isLast);

    std::atomic<uint64_t>& dropped_;
    mutable Mutex mutex_;
    std::map<std::string, Work> work_ PROCMGR_GUARDED_BY(mutex_);  // by path
    size_t size_ PROCMGR_GUARDED_BY(mutex_) = 0;                   // of all lines that wait
    bool isPosted_ PROCMGR_GUARDED_BY(mutex_) = false;             // the thread has the job
    SteadyTime remindAt_ PROCMGR_GUARDED_BY(mutex_) = SteadyTime::max();
    bool isLast_ PROCMGR_GUARDED_BY(mutex_) = false;  // the next round is the last one
    Present present_ PROCMGR_GUARDED_BY(mutex_);
    std::map<std::string, Trouble> troubles_;  // by path; of the thread
    // Its jobs use all of the above.
    SerialWorker worker_{"output-file"};
};

}  // namespace ProcMgr::Output
