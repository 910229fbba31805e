// pmctl check: finds what is wrong in files before a boot.
#include <CLI/CLI.hpp>
#include <memory>
#include <nlohmann/json.hpp>
#include <ostream>

#include "main/common/log.h"
#include "pmctl/check_files.h"
#include "pmctl/commands.h"

namespace ProcMgr::Pmctl {
namespace {

struct CheckOptions {
    std::vector<std::string> files;
    std::string kind;
    std::string root;
    bool isStrict = false;
    bool isCopy = false;  // --no-owner
};

nlohmann::ordered_json ToJson(const Finding& finding) {
    return {{"severity", SeverityName(finding.severity)},
            {"file", finding.file},
            {"line", finding.line},
            {"key", finding.key},
            {"what", finding.what},
            {"hint", finding.hint}};
}

void WriteJson(const Findings& findings, std::ostream& out) {
    auto list = nlohmann::ordered_json::array();
    for (const Finding& finding : findings.Get()) {
        list.push_back(ToJson(finding));
    }
    out << list.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) << '\n';
}

std::string Counted(size_t number, const char* noun) {
    return std::to_string(number) + ' ' + noun + (number == 1 ? "" : "s");
}

void WriteText(const Findings& findings, size_t files, const Context& context) {
    for (const Finding& finding : findings.Get()) {
        context.out << finding.Text(context.hasColours) << '\n';
    }
    if (findings.GetLeftOut() > 0) {
        context.out << Counted(findings.GetLeftOut(), "further finding") << '\n';
    }
    context.out << Counted(files, "file")
                << " checked: " << Counted(findings.Count(Severity::ERROR), "error") << ", "
                << Counted(findings.Count(Severity::WARNING), "warning") << ", "
                << Counted(findings.Count(Severity::NOTE), "note") << '\n';
}

void RunCheck(const CheckOptions& options, Context& context) {
    SwitchLogOff();
    const Image image(options.root);
    BoardUsers users(image);
    Findings findings;
    CheckContext check{findings, image, users};
    check.hasOwners = !options.isCopy;
    const auto kind = options.kind.empty() ? std::nullopt : FileKindOf(options.kind);
    const size_t files = CheckFiles(options.files, kind, check);
    if (context.isJson) {
        WriteJson(findings, context.out);
    } else {
        WriteText(findings, files, context);
    }
    const bool hasErrors = findings.Count(Severity::ERROR) > 0;
    const bool hasWarnings = findings.Count(Severity::WARNING) > 0;
    context.exitCode = hasErrors || (options.isStrict && hasWarnings) ? EXIT_NO : EXIT_OK;
}

}  // namespace

void AddCheck(CLI::App& app, Context& context) {
    const auto options = std::make_shared<CheckOptions>();
    CLI::App* command = app.add_subcommand(
        "check", "Check manifests, settings, env.cfg and hash files, or directories of them");
    command->add_option("FILE", options->files, "The files and directories")->required();
    command->add_option("--as", options->kind, "What the files are; recognised by default")
        ->check(CLI::IsMember({"manifest", "settings", "env", "hash"}));
    command
        ->add_option("--root", options->root,
                     "A directory that is / on the board: programs and users are those in it")
        ->check(CLI::ExistingDirectory);
    command->add_flag("--no-owner", options->isCopy,
                      "Copies of the files: do not check who owns and may write them");
    command->add_flag("--strict", options->isStrict, "Exit with 1 after warnings, too");
    command->callback([options, &context] { RunCheck(*options, context); });
}

}  // namespace ProcMgr::Pmctl
