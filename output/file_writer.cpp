#include "output/file_writer.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "main/common/log.h"

namespace ProcMgr::Output {
namespace {

// Lines are gathered for this time: each round opens each file once.
constexpr std::chrono::milliseconds ROUND_PAUSE{10};
// A file that has failed is left alone for this time.
constexpr std::chrono::seconds RETRY_PAUSE{1};
// The least time between two lines of the log about lost lines of one file.
constexpr std::chrono::seconds REPORT_PAUSE{10};

uint64_t CountLines(std::string_view lines) {
    return static_cast<uint64_t>(std::count(lines.begin(), lines.end(), '\n'));
}

}  // namespace

void FileWriter::Add(const std::string& service, const OutputConfig& config,
                     std::string_view lines) {
    bool isPosted = false;
    {
        const LockGuard lock(mutex_);
        Put(service, config, lines);
        isPosted = std::exchange(isPosted_, true);
    }
    if (!isPosted && !worker_.Post([this] { WriteAll(); })) {
        const LockGuard lock(mutex_);
        isPosted_ = false;  // the next lines try again
    }
}

void FileWriter::Put(const std::string& service, const OutputConfig& config,
                     std::string_view lines) {
    auto work = work_.find(config.file);
    if (work == work_.end() && work_.size() < FILES_MAX) {
        work = work_.try_emplace(config.file).first;
    }
    if (work == work_.end()) {
        dropped_ += CountLines(lines);
        return;
    }
    work->second.service = service;
    work->second.size = config.size;
    if (work->second.lines.size() + lines.size() > FILE_MAX || size_ + lines.size() > TOTAL_MAX) {
        const uint64_t count = CountLines(lines);
        work->second.lost += count;
        dropped_ += count;
        return;
    }
    work->second.lines += lines;
    size_ += lines.size();
}

void FileWriter::WriteAll() {
    std::map<std::string, Work> work;
    {
        const LockGuard lock(mutex_);
        work.swap(work_);
        size_ = 0;
        isPosted_ = false;
    }
    for (const auto& [path, ofPath] : work) {
        WriteOne(path, ofPath);
    }
    SleepFor(ROUND_PAUSE);
}

void FileWriter::WriteOne(const std::string& path, const Work& work) {
    if (troubles_.size() >= FILES_MAX) {
        troubles_.erase(troubles_.begin());
    }
    Trouble& trouble = troubles_[path];
    trouble.lost += work.lost;
    if (trouble.hasFailed && std::chrono::steady_clock::now() < trouble.retryAt) {
        Lose(trouble, work.lines);
        return;
    }
    const AppendResult result = AppendToFile(path, work.size, work.lines);
    if (result.failure != nullptr) {
        Lose(trouble, std::string_view(work.lines).substr(result.written));
        NoteFailure(path, work.service, result, trouble);
    } else if (NoteSuccess(path, work.service, trouble)) {
        troubles_.erase(path);
    }
}

void FileWriter::Lose(Trouble& trouble, std::string_view lines) {
    const uint64_t count = CountLines(lines);
    trouble.lost += count;
    dropped_ += count;
}

void FileWriter::NoteFailure(const std::string& path, const std::string& service,
                             const AppendResult& result, Trouble& trouble) {
    trouble.retryAt = std::chrono::steady_clock::now() + RETRY_PAUSE;
    if (!std::exchange(trouble.hasFailed, true)) {
        ProcMgrLog(LOG_ERR, "PROCMGR : the output of %s is not written to %s: %s, errno=%d",
                   service.c_str(), path.c_str(), result.failure, result.error);
    }
}

bool FileWriter::NoteSuccess(const std::string& path, const std::string& service,
                             Trouble& trouble) {
    const SteadyTime now = std::chrono::steady_clock::now();
    const auto lost = static_cast<unsigned long long>(trouble.lost);
    if (trouble.hasFailed) {
        ProcMgrLog(LOG_WARNING,
                   "PROCMGR : the output of %s is written to %s again, %llu lines are lost",
                   service.c_str(), path.c_str(), lost);
    } else if (now < trouble.reportAt || lost == 0) {
        return now >= trouble.reportAt;
    } else {
        ProcMgrLog(LOG_WARNING, "PROCMGR : %llu lines of the output of %s are lost, %s is too slow",
                   lost, service.c_str(), path.c_str());
    }
    trouble = {};
    trouble.reportAt = now + REPORT_PAUSE;
    return false;
}

}  // namespace ProcMgr::Output
