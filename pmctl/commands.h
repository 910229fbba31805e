// The commands of pmctl. Each function adds one command, or a few that belong together, to the
// parser; the command runs when the command line names it. A command writes its data to
// `context.out`, throws CommandError when it cannot do its work, and sets `context.exitCode`.
// `app` and `context` must outlive the parsing.
#pragma once

#include <CLI/App.hpp>

#include "pmctl/context.h"

namespace ProcMgr::Pmctl {

// Before a boot, without a daemon.
void AddCheck(CLI::App& app, Context& context);         // check
void AddGraphAndPlan(CLI::App& app, Context& context);  // graph, plan

// Of the running daemon.
void AddStatus(CLI::App& app, Context& context);   // status, tree
void AddEvents(CLI::App& app, Context& context);   // events
void AddWhy(CLI::App& app, Context& context);      // why
void AddBoot(CLI::App& app, Context& context);     // boot, blame
void AddReport(CLI::App& app, Context& context);   // report
void AddMetrics(CLI::App& app, Context& context);  // metrics

// Commands for general applications, by pm-console.
void AddControl(CLI::App& app, Context& context);  // start, stop, restart, query, load, reload

}  // namespace ProcMgr::Pmctl
