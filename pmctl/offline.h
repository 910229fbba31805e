// The commands about files before a boot, without the parsing of the command line. Each writes to
// `context.out` and throws CommandError when it cannot do its work.
#pragma once

#include <string>
#include <vector>

#include "pmctl/context.h"

namespace ProcMgr::Pmctl {

struct CheckOptions {
    std::vector<std::string> files;  // and directories
    std::string kind;                // a name of FileKindOf(); empty: recognised
    std::string root;                // the directory that is / on the board; empty: /
    bool isStrict = false;           // EXIT_NO after warnings, too
    bool isCopy = false;             // who owns the files does not matter
};

// Writes what is wrong in the files. EXIT_NO when there are errors.
void RunCheck(const CheckOptions& options, Context& context);

struct PlanOptions {
    std::string file;          // the manifest of the base services
    std::string commandLine;   // the kernel's boot command line, or @FILE
    std::string root;          // as in CheckOptions
    std::string times;         // plan: a status document of an earlier boot
    std::string output;        // a file; empty or "-": `context.out`
    bool isCopy = false;       // as in CheckOptions
    bool isOrderOnly = false;  // programs and users are not checked
    bool isSvg = false;
    bool isDot = false;  // graph
};

// What a boot would do; with `times` also when.
void RunPlan(const PlanOptions& options, const Context& context);

// Which service waits for which.
void RunGraph(const PlanOptions& options, const Context& context);

}  // namespace ProcMgr::Pmctl
