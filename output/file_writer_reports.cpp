// What the log says about files: those that cannot be written, that lose lines, or that hang.
#include <algorithm>
#include <chrono>
#include <utility>

#include "main/common/log.h"
#include "output/file_writer.h"

namespace ProcMgr::Output {
namespace {

// A file that has failed is left alone for this time.
constexpr std::chrono::seconds RETRY_PAUSE{1};
// The least time between two lines of the log about lost lines of one file.
constexpr std::chrono::seconds REPORT_PAUSE{10};
// A file that takes longer is reported, and the next one not before the second time is over.
constexpr std::chrono::seconds STALL_PATIENCE{5};
constexpr std::chrono::seconds STALL_PAUSE{60};

}  // namespace

void FileWriter::SetPresent(const std::string& path) {
    const LockGuard lock(mutex_);
    present_.path = path;
    present_.stallAt = path.empty() ? SteadyTime::max()
                                    : std::max(std::chrono::steady_clock::now() + STALL_PATIENCE,
                                               present_.nextReport);
}

void FileWriter::ReportStall(SteadyTime now) {
    std::string path;
    {
        const LockGuard lock(mutex_);
        if (now < present_.stallAt) {
            return;
        }
        path = present_.path;
        present_.stallAt = SteadyTime::max();
        present_.nextReport = now + STALL_PAUSE;
    }
    ProcMgrLog(LOG_ERR,
               "PROCMGR : %s has not been written for %lld seconds, the output of all services "
               "into files waits for it",
               path.c_str(), static_cast<long long>(STALL_PATIENCE.count()));
}

uint64_t FileWriter::CountLines(std::string_view lines) {
    return static_cast<uint64_t>(std::count(lines.begin(), lines.end(), '\n'));
}

void FileWriter::Lose(Trouble& trouble, std::string_view lines) {
    const uint64_t count = CountLines(lines);
    trouble.lost += count;
    dropped_ += count;
    trouble.reportAt = std::chrono::steady_clock::now() + REPORT_PAUSE;
}

void FileWriter::NoteFailure(const std::string& path, const AppendResult& result,
                             Trouble& trouble) {
    trouble.retryAt = std::chrono::steady_clock::now() + RETRY_PAUSE;
    if (!std::exchange(trouble.hasFailed, true)) {
        ProcMgrLog(LOG_ERR, "PROCMGR : the output of %s is not written to %s: %s, errno=%d",
                   trouble.service.c_str(), path.c_str(), result.failure, result.error);
    }
}

bool FileWriter::NoteSuccess(const std::string& path, Trouble& trouble) {
    const SteadyTime now = std::chrono::steady_clock::now();
    if (!trouble.hasFailed) {
        return now >= trouble.reportAt && trouble.lost == 0;
    }
    ProcMgrLog(
        LOG_WARNING, "PROCMGR : the output of %s is written to %s again, %llu lines are lost",
        trouble.service.c_str(), path.c_str(), static_cast<unsigned long long>(trouble.lost));
    trouble = {};
    trouble.reportAt = now + REPORT_PAUSE;
    return false;
}

void FileWriter::ReportLost(bool isLast) {
    const SteadyTime now = std::chrono::steady_clock::now();
    for (auto& [path, trouble] : troubles_) {
        const bool isDue = now >= trouble.reportAt && trouble.told == 0;
        if (trouble.lost == trouble.told || !(isDue || isLast)) {
            continue;
        }
        ProcMgrLog(LOG_WARNING, "PROCMGR : %llu lines of the output of %s are lost, %s is %s",
                   static_cast<unsigned long long>(trouble.lost), trouble.service.c_str(),
                   path.c_str(), trouble.hasFailed ? "not written" : "too slow");
        trouble.told = trouble.hasFailed ? trouble.lost : 0;
        trouble.lost = trouble.told;
        trouble.reportAt = now + REPORT_PAUSE;
    }
}

}  // namespace ProcMgr::Output
