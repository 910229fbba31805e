// Writes the lines of services to their files, on a thread of its own: a file system that is slow,
// full or dead holds up nobody else.
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

    // Writes what waits and ends the thread. False when it still runs at `end`: this object must
    // then live until the process ends.
    bool Stop(SteadyTime end) { return worker_.Stop(end); }

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
        bool hasFailed = false;
        uint64_t lost = 0;  // lines since the last report
        SteadyTime retryAt{};
        SteadyTime reportAt{};
    };

    void Put(const std::string& service, const OutputConfig& config, std::string_view lines)
        PROCMGR_REQUIRES(mutex_);
    // The operations of the thread.
    void WriteAll() PROCMGR_EXCLUDES(mutex_);
    void WriteOne(const std::string& path, const Work& work);
    void Lose(Trouble& trouble, std::string_view lines);
    static void NoteFailure(const std::string& path, const std::string& service,
                            const AppendResult& result, Trouble& trouble);
    // True when nothing has to be remembered of the file.
    static bool NoteSuccess(const std::string& path, const std::string& service, Trouble& trouble);

    std::atomic<uint64_t>& dropped_;
    Mutex mutex_;
    std::map<std::string, Work> work_ PROCMGR_GUARDED_BY(mutex_);  // by path
    size_t size_ PROCMGR_GUARDED_BY(mutex_) = 0;                   // of all lines that wait
    bool isPosted_ PROCMGR_GUARDED_BY(mutex_) = false;             // the thread has the job
    std::map<std::string, Trouble> troubles_;                      // by path; of the thread
    // Its jobs use all of the above.
    SerialWorker worker_{"output-file"};
};

}  // namespace ProcMgr::Output
