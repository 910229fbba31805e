// What is shown of the output of each service: where it goes, and its last lines.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "main/common/mutex.h"
#include "output/line_tail.h"
#include "platform/manifest_output.h"

namespace ProcMgr::Output {

// "inherit", "null", "syslog" or "file:PATH".
std::string OutputText(const OutputConfig& config);

// Any thread; the lock is a leaf.
class OutputRecords {
public:
    // Before each start of a service.
    void SetOutput(const std::string& service, const OutputConfig& config) PROCMGR_EXCLUDES(mutex_);
    // Adds lines to those of a service, and empties `lines`.
    void AddLines(const std::string& service, LineTail& lines) PROCMGR_EXCLUDES(mutex_);

    // As OutputText(); "inherit" for a service that has never been started.
    std::string GetOutput(const std::string& service) const PROCMGR_EXCLUDES(mutex_);
    // The oldest line first.
    std::vector<std::string> LastLines(const std::string& service) const PROCMGR_EXCLUDES(mutex_);

private:
    // Manifests that are loaded again and again may have other names each time.
    static constexpr size_t RECORDS_MAX = 8192;

    struct Record {
        std::string output;
        LineTail lines;
        uint64_t start = 0;  // the number of the last start
    };

    void MakeRoom() PROCMGR_REQUIRES(mutex_);

    mutable Mutex mutex_;
    // Without the services that inherit.
    std::map<std::string, Record> records_ PROCMGR_GUARDED_BY(mutex_);
    uint64_t starts_ PROCMGR_GUARDED_BY(mutex_) = 0;
};

}  // namespace ProcMgr::Output
