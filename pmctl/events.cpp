// pmctl events: the last state changes, and those to come.
#include <algorithm>
#include <chrono>
#include <ostream>
#include <thread>

#include "pmctl/ask.h"
#include "pmctl/find_name.h"
#include "pmctl/json_output.h"
#include "pmctl/online.h"
#include "pmctl/people.h"
#include "pmctl/svg.h"
#include "pmctl/terminal.h"

namespace ProcMgr::Pmctl {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds POLL_PERIOD{250};
// A daemon that is busy closes a connection without an answer; it is asked again for so long.
constexpr std::chrono::seconds RETRY_TIME{5};
constexpr size_t NAME_COLUMNS_MIN = 16;
constexpr size_t NUMBER_COLUMNS = 6;

Ink InkOf(const std::string& state) {
    if (state == "RUNNING") {
        return Ink::GOOD;
    }
    return state == "TERMINATED" ? Ink::BAD : Ink::BUSY;
}

// The cause and what is known beside it; "exited" is the begin of many exits in words.
std::string CauseOf(const Event& event) {
    if (event.detail.empty() || event.detail.starts_with(event.cause)) {
        return event.detail.empty() ? event.cause : event.detail;
    }
    return event.cause + ": " + event.detail;
}

bool IsWanted(const EventsOptions& options, const Event& event) {
    return !options.name || IsNameInEvent(event.name, *options.name);
}

// Prints events one after the other and knows the last one.
class EventPrinter {
public:
    EventPrinter(const Context& context, const EventsOptions& options)
        : context_(context), options_(options), last_(options.since) {}

    int64_t Last() const { return last_; }

    // The numbers begin anew with another daemon.
    void StartAnew(int64_t daemonPid) {
        Note("process-manager has been restarted, pid " + std::to_string(daemonPid),
             NewDaemonJson(daemonPid));
        last_ = 0;
        isFromBegin_ = true;
    }

    void Print(const EventsAnswer& answer) {
        if (answer.events.empty()) {
            return;
        }
        const int64_t skipped = answer.events.front().number - last_ - 1;
        if ((last_ > 0 || isFromBegin_) && skipped > 0) {
            Note(Counted(skipped, "event") + (skipped == 1 ? " was" : " were") + " missed",
                 MissedJson(skipped));
        }
        for (const Event& event : answer.events) {
            if (IsWanted(options_, event)) {
                PrintEvent(answer.clock, event);
            }
        }
        last_ = answer.events.back().number;
    }

private:
    void Note(const std::string& text, const std::string& json) const {
        if (context_.isJson) {
            PrintDocument(context_, json);
        } else {
            context_.out << Painted(context_.hasColours, Ink::QUIET, "-- " + text) << '\n';
        }
    }

    void PrintEvent(const Clocks& clock, const Event& event) {
        if (context_.isJson) {
            PrintDocument(context_, EventJson(clock, event));
            return;
        }
        const std::string number = std::to_string(event.number);
        const std::string name =
            Printable(event.name) + (event.pid > 0 ? '[' + std::to_string(event.pid) + ']' : "");
        nameColumns_ = std::max(nameColumns_, TextColumns(name));
        context_.out << std::string(NUMBER_COLUMNS - std::min(NUMBER_COLUMNS, number.size()), ' ')
                     << number << "  " << FormatWall(clock, event.atNs) << "  "
                     << Padded(name, nameColumns_) << "  " << Printable(event.from) << " -> "
                     << Painted(context_.hasColours, InkOf(event.to), Printable(event.to)) << ", "
                     << Printable(CauseOf(event)) << '\n';
    }

    const Context& context_;
    const EventsOptions& options_;
    int64_t last_;
    bool isFromBegin_ = false;  // all events from number 1 are wanted
    size_t nameColumns_ = NAME_COLUMNS_MIN;
};

// As AskEvents(), but asks again while the daemon does not answer.
EventsAnswer AskPatiently(const Context& context, int64_t number) {
    const Clock::time_point end = Clock::now() + RETRY_TIME;
    for (;;) {
        try {
            return AskEvents(context, number);
        } catch (const CommandError& error) {
            if (error.GetCode() != EXIT_NO_ANSWER || Clock::now() >= end) {
                throw;
            }
        }
        std::this_thread::sleep_for(POLL_PERIOD);
    }
}

void Follow(const Context& context, EventPrinter& printer, int64_t daemonPid) {
    while (context.out.flush().good()) {
        std::this_thread::sleep_for(POLL_PERIOD);
        EventsAnswer answer = AskPatiently(context, printer.Last());
        if (answer.daemonPid != daemonPid) {
            daemonPid = answer.daemonPid;
            answer = AskPatiently(context, 0);
            printer.StartAnew(daemonPid);
        }
        printer.Print(answer);
    }
}

// A name without events may be one that does not exist.
void CheckName(const Context& context, const EventsAnswer& answer, const std::string& name) {
    const bool isKnown =
        std::any_of(answer.events.begin(), answer.events.end(),
                    [&name](const Event& event) { return IsNameInEvent(event.name, name); });
    if (!isKnown) {
        AskStatus(context, name);
    }
}

}  // namespace

void ShowEvents(const Context& context, const EventsOptions& options) {
    const EventsAnswer answer = AskEvents(context, options.since);
    if (options.name) {
        CheckName(context, answer, *options.name);
    }
    if (context.isJson && !options.isFollowing) {
        std::vector<Event> events = answer.events;
        std::erase_if(events, [&options](const Event& event) { return !IsWanted(options, event); });
        PrintDocument(context, EventsJson(answer.clock, events));
        return;
    }
    EventPrinter printer(context, options);
    printer.Print(answer);
    if (options.isFollowing) {
        Follow(context, printer, answer.daemonPid);
    }
}

}  // namespace ProcMgr::Pmctl
