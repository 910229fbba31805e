#include "console/console_session.h"

#include <algorithm>
#include <climits>
#include <utility>

#include "message/enum_names.h"

namespace ProcMgr::Console {
namespace {

using Message::AppStateInfo;

enum class Meaning {
    NEWS,     // not the outcome
    DONE,     // the wanted outcome
    FAILED,   // another outcome
    REFUSED,  // another outcome, when it answers this request
};

struct Reading {
    Command command;
    uint32_t report;  // a ReportAppStateType
    Meaning meaning;
    const char* text;
};

constexpr const char* NOT_STARTED = "did not start, or has ended: see the log of the daemon";
// Also the outcome for a name that the daemon does not know.
constexpr const char* NOT_RESTARTED =
    "did not start, has ended, or is no application: see the log of the daemon";
// Also true of a base service, and of a name that nobody has.
constexpr const char* NOT_RUNNING = "not a running application";
constexpr const char* CHANGING = "refused: it is being started, stopped or restarted";

// What a report means for a request. A report that is not here is news.
constexpr Reading READINGS[] = {
    {Command::START, RUNNING_NORMAL_START, Meaning::DONE, "runs"},
    {Command::START, RUNNING_NORMAL_RESTART, Meaning::DONE, "runs"},
    {Command::START, TERMINATED_NORMAL_EXIT, Meaning::FAILED, "has ended"},
    {Command::START, TERMINATED_ABNORMAL_EXIT, Meaning::FAILED, NOT_STARTED},
    {Command::START, INVALID_INTERMEDIATE_STATE, Meaning::REFUSED, CHANGING},
    {Command::STOP, TERMINATED_NORMAL_EXIT, Meaning::DONE, "stopped"},
    {Command::STOP, TERMINATED_ABNORMAL_EXIT, Meaning::DONE, "has ended by itself"},
    {Command::STOP, RUNNING_ABNORMAL_TERM_TIMEOUT, Meaning::FAILED,
     "still runs: it did not end within its term_timeout"},
    {Command::STOP, INVALID_INTERMEDIATE_STATE, Meaning::REFUSED, CHANGING},
    {Command::RESTART, RUNNING_NORMAL_RESTART, Meaning::DONE, "restarted"},
    {Command::RESTART, TERMINATED_ABNORMAL_EXIT, Meaning::FAILED, NOT_RESTARTED},
    {Command::RESTART, INVALID_INTERMEDIATE_STATE, Meaning::REFUSED, CHANGING},
};

// The texts of reports that are news, by ReportAppStateType.
constexpr const char* NEWS_TEXTS[] = {
    "runs",      "restarted",           "still runs",
    "has ended", "has ended by itself", "is starting or stopping"};

// The status of an application in the daemon's answer to a query.
constexpr uint32_t GONE = 1;
constexpr std::pair<const char*, const char*> STATUSES[] = {
    {"ALIVE", "runs"}, {"GONE", NOT_RUNNING}, {"STOPPED", "is stopped by a signal"}};

const Reading* FindReading(Command command, uint32_t report) {
    const auto* found =
        std::find_if(std::begin(READINGS), std::end(READINGS), [&](const Reading& reading) {
            return reading.command == command && reading.report == report;
        });
    return found == std::end(READINGS) ? nullptr : found;
}

// The daemon reports -1 or 0 where it has no process.
uint32_t ToPid(uint32_t pid) {
    return pid > INT_MAX ? 0 : pid;
}

std::string Join(const std::set<std::string>& names) {
    std::string joined;
    for (const std::string& name : names) {
        joined += (joined.empty() ? "" : ", ") + name;
    }
    return joined;
}

}  // namespace

ConsoleSession::ConsoleSession(Request request, Time begin)
    : request_(std::move(request)),
      deadline_(begin + (request_.isWaiting || request_.command == Command::QUERY ? request_.timeout
                                                                                  : SHORT_WAIT)),
      open_(request_.names.begin(), request_.names.end()) {}

std::string ConsoleSession::OnSent() {
    isSent_ = true;
    return isDone_ ? std::string() : SentLine();
}

std::string ConsoleSession::OnReport(const AppStateInfo& report, bool isNext) {
    if (isDone_ || !open_.contains(report.appName) || report.reportType >= std::size(NEWS_TEXTS)) {
        return {};
    }
    News news{.name = report.appName,
              .type = GetReportAppStateTypeStr(report.reportType),
              .result = report.result,
              .pid = ToPid(report.pid),
              .text = NEWS_TEXTS[report.reportType]};
    const Reading* reading = FindReading(request_.command, report.reportType);
    if (reading == nullptr || (reading->meaning == Meaning::REFUSED && !isNext)) {
        return NewsLine(news);
    }
    const bool isIdle = request_.command == Command::STOP &&
                        report.reportType == TERMINATED_NORMAL_EXIT && news.pid == 0;
    news.text = isIdle ? NOT_RUNNING : reading->text;
    news.isOk = reading->meaning == Meaning::DONE;
    return Decide(news);
}

std::string ConsoleSession::OnAnswer(const Statuses& statuses, Time now) {
    if (isDone_) {
        return {};
    }
    if (request_.command == Command::QUERY) {
        return AnswerQuery(statuses);
    }
    if (HasFile(request_.command)) {
        isDone_ = true;
        return DoneLine();
    }
    std::set<std::string> alive;
    for (const std::string& name : open_) {
        const auto status = statuses.find(name);
        (status != statuses.end() && status->second == GONE ? gone_ : alive).insert(name);
    }
    isGraceRunning_ = !gone_.empty();
    grace_ = now + SHORT_WAIT;
    return request_.isWaiting ? std::string() : DecideAllOf(alive, Requested());
}

std::string ConsoleSession::AnswerQuery(const Statuses& statuses) {
    std::string lines;
    for (const std::string& name : request_.names) {
        const auto found = statuses.find(name);
        const uint32_t status =
            found == statuses.end() || found->second >= std::size(STATUSES) ? GONE : found->second;
        lines += Decide({.name = name,
                         .type = STATUSES[status].first,
                         .result = status,
                         .text = STATUSES[status].second,
                         .isOk = status == 0});
    }
    return lines;
}

std::string ConsoleSession::Decide(const News& news) {
    open_.erase(news.name);
    gone_.erase(news.name);
    if (!news.isOk) {
        failed_ += (failed_.empty() ? "" : ", ") + news.name;
    }
    News outcome = news;
    outcome.isFinal = true;
    std::string lines = NewsLine(outcome);
    if (open_.empty()) {
        isDone_ = true;
        const std::string what = request_.command == Command::QUERY ? "not running: " : "failed: ";
        lines += failed_.empty() ? DoneLine() : DoneLine(Code::FAILED, what + failed_);
    }
    return lines;
}

std::string ConsoleSession::DecideAllOf(const std::set<std::string>& names, const News& news) {
    std::string lines;
    for (const std::string& name : names) {
        News outcome = news;
        outcome.name = name;
        lines += Decide(outcome);
    }
    return lines;
}

News ConsoleSession::Requested() const {
    return {.type = "REQUESTED", .text = NameOf(request_.command) + " requested", .isOk = true};
}

std::string ConsoleSession::DecideGone() {
    isGraceRunning_ = false;
    const bool isOk = request_.command == Command::STOP;
    const std::string text = isOk ? NOT_RUNNING : "no such application, or it has ended at once";
    return DecideAllOf(std::set<std::string>(gone_), {.type = "GONE", .text = text, .isOk = isOk});
}

std::string ConsoleSession::OnTime(Time now) {
    std::string lines;
    const bool isOver = now >= deadline_;
    if (!isDone_ && isGraceRunning_ && (isOver || now >= grace_)) {
        lines += DecideGone();
    }
    return isDone_ || !isOver ? lines : lines + TimeOut();
}

std::string ConsoleSession::TimeOut() {
    if (!isSent_) {
        return Fail(Code::NO_DAEMON, "the daemon does not take the request");
    }
    if (request_.command == Command::QUERY || (request_.isWaiting && open_.empty())) {
        return Fail(Code::TIMED_OUT, "the daemon has not answered in time");
    }
    if (!request_.isWaiting) {
        isDone_ = open_.empty();
        return isDone_ ? DoneLine() : DecideAllOf(std::set<std::string>(open_), Requested());
    }
    const auto milliseconds = request_.timeout.count();
    return Fail(Code::TIMED_OUT,
                Join(open_) + ": no result within " + std::to_string(milliseconds) + " ms");
}

std::string ConsoleSession::Fail(const std::string& code, const std::string& error) {
    isDone_ = true;
    return DoneLine(code, error);
}

}  // namespace ProcMgr::Console
