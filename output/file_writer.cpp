#include "output/file_writer.h"

#include <chrono>
#include <exception>
#include <utility>

namespace ProcMgr::Output {
namespace {

// Lines are gathered for this time: each round opens each file once.
constexpr std::chrono::milliseconds ROUND_PAUSE{10};
// When lines are reported that were lost before a service became silent.
constexpr std::chrono::seconds REMINDER_PAUSE{11};

}  // namespace

void FileWriter::Add(const std::string& service, const OutputConfig& config,
                     std::string_view lines) {
    const SteadyTime now = std::chrono::steady_clock::now();
    {
        const LockGuard lock(mutex_);
        remindAt_ = now + REMINDER_PAUSE;
        Put(service, config, lines);
    }
    Post();
    ReportStall(now);
}

void FileWriter::Post() {
    {
        const LockGuard lock(mutex_);
        if (std::exchange(isPosted_, true)) {
            return;
        }
    }
    if (!worker_.Post([this] { WriteAll(); })) {
        const LockGuard lock(mutex_);
        isPosted_ = false;  // the next lines try again
    }
}

SteadyTime FileWriter::GetReminderTime() const {
    const LockGuard lock(mutex_);
    return remindAt_;
}

void FileWriter::Remind(SteadyTime now) {
    {
        const LockGuard lock(mutex_);
        if (now < remindAt_) {
            return;
        }
        remindAt_ = SteadyTime::max();
    }
    Post();
    ReportStall(now);
}

bool FileWriter::Stop(SteadyTime end) {
    bool isUsed = false;
    {
        const LockGuard lock(mutex_);
        isUsed = std::exchange(remindAt_, SteadyTime::max()) != SteadyTime::max();
        isLast_ = true;
    }
    if (isUsed) {
        Post();
    }
    return worker_.Stop(end);
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
    bool isLast = false;
    {
        const LockGuard lock(mutex_);
        work.swap(work_);
        size_ = 0;
        isPosted_ = false;
        isLast = isLast_;
    }
    for (const auto& [path, ofPath] : work) {
        try {
            SetPresent(path);
            WriteOne(path, ofPath);
        } catch (const std::exception&) {
            // The memory is short. The other files have their turn.
            dropped_ += CountLines(ofPath.lines);
        }
    }
    SetPresent({});
    ReportLost(isLast);
    SleepFor(ROUND_PAUSE);
}

void FileWriter::WriteOne(const std::string& path, const Work& work) {
    if (troubles_.size() >= FILES_MAX) {
        troubles_.erase(troubles_.begin());
    }
    Trouble& trouble = troubles_[path];
    trouble.service = work.service;
    trouble.lost += work.lost;
    if (trouble.hasFailed && std::chrono::steady_clock::now() < trouble.retryAt) {
        Lose(trouble, work.lines);
        return;
    }
    const AppendResult result = AppendToFile(path, work.size, work.lines);
    if (result.failure != nullptr) {
        Lose(trouble, std::string_view(work.lines).substr(result.written));
        NoteFailure(path, result, trouble);
    } else if (NoteSuccess(path, trouble)) {
        troubles_.erase(path);
    }
}

}  // namespace ProcMgr::Output
