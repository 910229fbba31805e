// pmctl why NAME: one answer in a few sentences.
#include <ostream>

#include "pmctl/ask.h"
#include "pmctl/find_name.h"
#include "pmctl/health.h"
#include "pmctl/json_output.h"
#include "pmctl/online.h"
#include "pmctl/people.h"
#include "pmctl/reasons.h"
#include "pmctl/status_view.h"
#include "pmctl/terminal.h"

namespace ProcMgr::Pmctl {
namespace {

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
    const bool isApplication = service.kind == "application";
    return service.name + " is " +
           (isApplication ? "an application of " + service.owner : "a service") + ": " +
           service.exec + (service.policy.empty() ? "" : ", restart policy " + service.policy) +
           '.';
}

std::string WhatItDoes(const Snapshot& snapshot, const Service& service) {
    std::string text = "It is " + service.state;
    const int64_t since = SinceNs(snapshot, service);
    if (since > 0) {
        text +=
            " since " + FormatWall(snapshot.clock, since) + ", " + FormatAgo(snapshot.clock, since);
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
    return "It has been started " + Counted(service.starts, "time") +
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

void Explain(const Context& context, const Snapshot& snapshot, const Service& service,
             const std::vector<Blocker>& blockers) {
    const Sentences sentences(context);
    sentences.Say(WhatItIs(service));
    sentences.Say(WhatItDoes(snapshot, service));
    if (service.lastExit) {
        sentences.Say("Last exit: " + FormatExit(snapshot.clock, *service.lastExit) + '.');
    }
    sentences.Say(HowOften(service));
    sentences.Say("Next: " + service.next + '.');
    SayBlockers(sentences, blockers);
    if (!service.outputTail.empty()) {
        sentences.Say("The last lines of its output:");
        context.out << FormatTail(service);
    }
}

// The output comes only with the answer for one name.
void AddTail(const Context& context, Service& service) {
    const Snapshot one = AskStatus(context, service.name).snapshot;
    for (const Service* found : FindNamed(one, service.name)) {
        if (found->kind == service.kind) {
            service.outputTail = found->outputTail;
        }
    }
}

}  // namespace

void ExplainService(const Context& context, const std::string& name) {
    const Snapshot snapshot = AskStatus(context).snapshot;
    const auto found = FindNamed(snapshot, name);
    if (found.empty()) {
        FailUnknown(snapshot, name);
    }
    for (const Service* known : found) {
        Service service = *known;
        if (HealthOf(snapshot, service) == Health::FAILED) {
            AddTail(context, service);
        }
        const std::vector<Blocker> blockers = FindBlockers(snapshot, service);
        if (context.isJson) {
            PrintDocument(context, WhyJson(service, blockers));
        } else {
            Explain(context, snapshot, service, blockers);
        }
    }
}

}  // namespace ProcMgr::Pmctl
