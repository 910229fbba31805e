// The answers of the daemon as the commands use them: asked, checked and parsed.
#pragma once

#include <cstdint>
#include <string>

#include "pmctl/context.h"
#include "pmctl/snapshot.h"

namespace ProcMgr::Pmctl {

struct Answer {
    std::string text;  // the JSON document
    Snapshot snapshot;
};

// All services; or one, which must exist: CommandError with EXIT_NO names the nearest names.
Answer AskStatus(const Context& context);
Answer AskStatus(const Context& context, const std::string& name);
// The events with a number above `number`.
EventsAnswer AskEvents(const Context& context, int64_t number);

// A JSON document as one line. DEL and the control characters above it, which JSON allows, are
// escaped as well.
void PrintDocument(const Context& context, const std::string& json);

// A command whose result is no JSON: throws CommandError with EXIT_USAGE when --json is given.
void RefuseJson(const Context& context, const std::string& command);

}  // namespace ProcMgr::Pmctl
