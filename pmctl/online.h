// The commands about the running daemon, without the parsing of the command line. Each writes to
// `context.out` and throws CommandError when it cannot do its work.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "pmctl/context.h"

namespace ProcMgr::Pmctl {

// All services; or all about one, with EXIT_NO unless it runs.
struct StatusOptions {
    std::optional<std::string> name;
    bool isWatch = false;
};
void ShowStatus(Context& context, const StatusOptions& options);

// The services with the processes below each.
void ShowTree(const Context& context);

struct EventsOptions {
    std::optional<std::string> name;
    int64_t since = 0;  // events with a number above it
    bool isFollowing = false;
};
void ShowEvents(const Context& context, const EventsOptions& options);

// Why a service is what it is, in sentences.
void ExplainService(const Context& context, const std::string& name);

// The time line of the start-up: as text, or as a picture in the file `svg` ("-": standard output).
void ShowBoot(const Context& context, const std::optional<std::string>& svg);

// The services that took longest; `lines` of each kind, 0: all.
void ShowBlame(const Context& context, size_t lines);

// The report as a page in the file `html` ("-": standard output).
void WriteReport(const Context& context, const std::string& html);

// Everything as OpenMetrics text.
void ShowMetrics(const Context& context);

}  // namespace ProcMgr::Pmctl
