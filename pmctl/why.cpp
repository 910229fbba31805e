// pmctl why NAME: one answer in a few sentences.
#include <ostream>

#include "pmctl/ask.h"
#include "pmctl/faults.h"
#include "pmctl/find_name.h"
#include "pmctl/health.h"
#include "pmctl/json_output.h"
#include "pmctl/online.h"
#include "pmctl/people.h"
#include "pmctl/reasons.h"
#include "pmctl/status_client.h"
#include "pmctl/status_view.h"
#include "pmctl/terminal.h"

namespace ProcMgr::Pmctl {
namespace {

// The output of a process that has ended unexpectedly, or of one that does not run, tells why.
// Before the first start there is none.
bool IsOutputWanted(const Service& service) {
    const bool hasDied = service.lastExit && !service.lastExit->isExpected;
    return service.starts > 0 && (hasDied || service.state != "RUNNING" || service.hasFailedStart);
}

bool IsOutputKept(const Service& service) {
    return service.output != "inherit" && service.output != "null";
}

// Writes sentences that fit the width of the terminal.
class Sentences {
public:
    explicit Sentences(const Context& context) : context_(context), width_(TerminalColumns()) {}

    void Say(const std::string& text, size_t indent = 0) const {
        context_.out << std::string(indent, ' ')
                     << Wrapped(Printable(text), width_ - indent, indent + 2) << '\n';
    }

private:
    const Context& context_;
    const size_t width_;
};

std::string WhatItIs(const Service& service) {
    const std::string owner = service.owner.empty() ? "" : " of " + service.owner;
    return service.name + " is " +
           (service.kind == "application" ? "an application" + owner : "a service") + ": " +
           service.exec + (service.policy.empty() ? "" : ", restart policy " + service.policy) +
           '.';
}

std::string WhatItDoes(const Snapshot& snapshot, const Service& service) {
    const int64_t since = SinceNs(snapshot, service);
    std::string text = "It is " + service.state;
    if (since > 0) {
        text = "It has been " + service.state + " since " + FormatWall(snapshot.clock, since) +
               " (" + FormatAge(snapshot.clock, since) + ')';
    }
    if (service.pid > 0) {
        text += ", process " + std::to_string(service.pid);
    }
    return text + (service.why.empty() ? "." : ": " + service.why + '.');
}

std::string HowOften(const Service& service) {
    if (service.starts == 0) {
        return "It has never been started.";
    }
    const int64_t recent = service.restartsInLastMinute;
    return "It has been started " +
           (service.starts == 1   ? "once"
            : service.starts == 2 ? "twice"
                                  : Counted(service.starts, "time")) +
           (recent > 0 ? ", with " + Counted(recent, "restart") + " in the last minute." : ".");
}

void SayBlockers(const Sentences& sentences, const std::vector<Blocker>& blockers) {
    if (blockers.empty()) {
        return;
    }
    sentences.Say("Held back by, root causes first:");
    for (const Blocker& blocker : blockers) {
        sentences.Say(
            blocker.name + ": " + blocker.reason + (blocker.isRoot ? " (root cause)" : ""), 2);
    }
}

void SayTail(const Context& context, const Sentences& sentences, const Service& service) {
    if (!service.outputTail.empty()) {
        sentences.Say("The last lines of its output:");
        context.out << FormatTail(service);
    } else if (IsOutputWanted(service) && !IsOutputKept(service)) {
        sentences.Say("Its output is not kept (output: " + service.output + ").");
    }
}

void Explain(const Context& context, const Snapshot& snapshot, const WhyEntry& entry) {
    const Sentences sentences(context);
    const Service& service = entry.service;
    sentences.Say(WhatItIs(service));
    sentences.Say(WhatItDoes(snapshot, service));
    for (const Fault* fault : FaultsOf(snapshot, service)) {
        sentences.Say("A fault stands: " + DescribeFault(*fault) + '.');
    }
    if (service.lastExit) {
        sentences.Say("Last exit: " + FormatExit(snapshot.clock, *service.lastExit) + '.');
    }
    sentences.Say(HowOften(service));
    sentences.Say("Next: " + service.next + '.');
    SayBlockers(sentences, entry.blockers);
    SayTail(context, sentences, service);
}

// The output comes only with the answer for one name. An application may be gone by then.
void AddTails(const Context& context, const std::string& name, std::vector<WhyEntry>& entries) {
    const Snapshot one = ParseSnapshot(AskDaemon(context.statusSocket, StatusRequest(name)));
    for (const Service* found : FindNamed(one, name)) {
        for (WhyEntry& entry : entries) {
            if (found->kind == entry.service.kind && IsOutputWanted(entry.service)) {
                entry.service.outputTail = found->outputTail;
            }
        }
    }
}

}  // namespace

void ExplainService(const Context& context, const std::string& name) {
    const Snapshot snapshot = AskStatus(context).snapshot;
    std::vector<WhyEntry> entries;
    bool isTailWanted = false;
    for (const Service* found : FindNamed(snapshot, name)) {
        entries.push_back({*found, FindBlockers(snapshot, *found)});
        isTailWanted = isTailWanted || (IsOutputWanted(*found) && IsOutputKept(*found));
    }
    if (entries.empty()) {
        FailUnknown(snapshot, name);
    }
    if (isTailWanted) {
        AddTails(context, name, entries);
    }
    if (context.isJson) {
        PrintDocument(context, WhyJson(snapshot, entries));
        return;
    }
    for (const WhyEntry& entry : entries) {
        Explain(context, snapshot, entry);
    }
}

}  // namespace ProcMgr::Pmctl
