// The course of one request: which reports and answers of the daemon its client is told, and when
// the request is done. Every function returns the lines for the client, which may be none. A state
// machine without clock and sockets, for one thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <set>
#include <string>

#include "console/console_lines.h"
#include "console/console_protocol.h"
#include "message/request_msg.h"

namespace ProcMgr::Console {

class ConsoleSession {
public:
    using Time = std::chrono::steady_clock::time_point;
    using Statuses = std::map<std::string, uint32_t>;

    // How long a client that does not wait is kept without an answer of the daemon (an answer to a
    // query is always waited for), and how long an application that is not alive after its start
    // may be without a report.
    static constexpr std::chrono::milliseconds SHORT_WAIT{1000};

    ConsoleSession(Request request, Time begin);

    const Request& GetRequest() const { return request_; }
    bool IsDone() const { return isDone_; }
    // When OnTime() has to be called.
    Time GetDeadline() const { return isGraceRunning_ && grace_ < deadline_ ? grace_ : deadline_; }

    // The last record of the request is with the daemon.
    std::string OnSent();
    // A report of the daemon. `isNext`: the daemon's next answer to a query is that to this
    // request's query, so a report that an application is starting or stopping answers this
    // request.
    std::string OnReport(const Message::AppStateInfo& report, bool isNext);
    // The daemon has handled the request, and has answered its query with `statuses`.
    std::string OnAnswer(const Statuses& statuses, Time now);
    std::string OnTime(Time now);
    // Ends the request.
    std::string Fail(const std::string& code, const std::string& error);

private:
    std::string AnswerQuery(const Statuses& statuses);
    // Takes the outcome for one application. The last one ends the request.
    std::string Decide(const News& news);
    std::string DecideAllOf(const std::set<std::string>& names, const News& news);
    // Ends the wait for the applications that were not alive when the daemon had handled the
    // request, and about which nothing has been reported.
    std::string DecideGone();
    std::string TimeOut();
    News Requested() const;

    const Request request_;
    Time deadline_;
    std::set<std::string> open_;  // without an outcome
    std::set<std::string> gone_;  // out of open_
    std::string failed_;          // the names whose outcome is not the wanted one
    Time grace_;                  // the end of the wait for reports about gone_
    bool isGraceRunning_ = false;
    bool isSent_ = false;
    bool isDone_ = false;
};

}  // namespace ProcMgr::Console
