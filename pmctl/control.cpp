#include "pmctl/control.h"

#include <unistd.h>

#include <charconv>
#include <cmath>
#include <filesystem>
#include <ostream>
#include <string_view>

#include "console/console_lines.h"
#include "console/console_request.h"
#include "pmctl/ask.h"
#include "pmctl/console_client.h"
#include "pmctl/control_checks.h"
#include "pmctl/control_view.h"

namespace ProcMgr::Pmctl {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds PROGRESS_PERIOD{100};
// The console ends every request within its time-out; this is added for a slow machine.
constexpr milliseconds PATIENCE{5000};

milliseconds ParseSeconds(const std::string& text) {
    if (text == WAIT_ALONE) {
        return Console::TIMEOUT_DEFAULT;
    }
    double seconds = 0;
    const char* end = text.data() + text.size();
    const auto [last, error] = std::from_chars(text.data(), end, seconds);
    const auto most = static_cast<double>(Console::TIMEOUT_MAX.count());
    const double found = seconds * 1000;
    if (error != std::errc() || last != end || !(found >= 1 && found <= most)) {
        throw CommandError(EXIT_USAGE, "--wait=" + text +
                                           ": not a number of seconds from 0.001 to " +
                                           std::to_string(Console::TIMEOUT_MAX.count() / 1000));
    }
    return milliseconds(std::llround(found));
}

void CheckPair(const std::string& pair) {
    if (pair.find('=') == std::string::npos || pair.front() == '=') {
        throw CommandError(EXIT_USAGE, "\"" + pair + "\" is not KEY=VALUE");
    }
}

// "--wait 5" is "--wait" and an application of the name 5, which nobody means.
void RefuseLooseSeconds(const ControlOptions& options) {
    std::vector<std::string> words = options.names;
    words.insert(words.end(), options.match.begin(), options.match.end());
    words.push_back(options.file);
    for (const std::string& word : words) {
        const bool isNumber =
            !word.empty() && word.find_first_not_of("0123456789") == std::string::npos;
        if (options.wait == WAIT_ALONE && isNumber) {
            throw CommandError(EXIT_USAGE, "the seconds of --wait follow a '=': --wait=" + word);
        }
    }
}

// The line of progress on a terminal, which the next output replaces.
class ProgressLine {
public:
    ProgressLine(std::ostream& out, bool isShown) : out_(out), isShown_(isShown) {}

    bool IsShown() const { return isShown_; }
    void Show(const std::string& text) {
        Clear();
        if (isShown_) {
            out_ << text << std::flush;
            length_ = text.size();
        }
    }
    void Clear() {
        if (length_ > 0) {
            out_ << '\r' << std::string(length_, ' ') << '\r' << std::flush;
        }
        length_ = 0;
    }

private:
    std::ostream& out_;
    const bool isShown_;
    size_t length_ = 0;
};

// One line of the console, to the output. The progress line is gone before anything else is
// written, also before the text of an error.
void Take(const std::string& line, ControlView& view, ProgressLine& progress, Context& context) {
    progress.Clear();
    if (context.isJson) {
        PrintDocument(context, line);
    }
    const std::string text = view.Take(line);
    if (!context.isJson) {
        context.out << text;
    }
    context.out.flush();
}

}  // namespace

Console::Request MakeRequest(Console::Command command, const ControlOptions& options) {
    RefuseLooseSeconds(options);
    Console::Request request{.command = command, .names = options.names};
    request.values.argv = options.args;
    if (!options.exec.empty()) {
        request.values.dynamicPara[Console::PROGRAM] = {options.exec};
    }
    if (!options.vfId.empty()) {
        request.values.dynamicPara[Console::VF_ID] = {options.vfId};
    }
    if (!options.env.empty()) {
        request.values.dynamicPara[Console::ENVIRONMENT] = options.env;
    }
    for (const std::string& pair : options.match) {
        CheckPair(pair);
        const size_t end = pair.find('=');
        request.file.matchData[pair.substr(0, end)] = pair.substr(end + 1);
    }
    if (Console::HasFile(command)) {
        // The daemon has another working directory.
        request.file.path = std::filesystem::absolute(options.file).lexically_normal().string();
    }
    if (!options.wait.empty()) {
        request.isWaiting = true;
        request.timeout = ParseSeconds(options.wait);
    }
    // The rules for names and values are those of the console.
    std::string line = Console::FormatRequest(request);
    line.pop_back();
    const Console::ParsedRequest parsed = Console::ParseRequest(line);
    if (!parsed.request) {
        throw CommandError(EXIT_USAGE, parsed.error);
    }
    return *parsed.request;
}

void RunControl(const Console::Request& request, Context& context) {
    RefuseMissingFile(request);
    RefuseBaseServices(request, context);
    const auto begin = steady_clock::now();
    const auto deadline = begin + request.timeout + PATIENCE;
    ConsoleClient client(context.consoleSocket);
    client.Send(Console::FormatRequest(request), deadline);
    ControlView view(request);
    ProgressLine progress(context.out,
                          !context.isJson && request.isWaiting && isatty(STDOUT_FILENO) == 1);
    std::string line;
    while (!view.IsDone()) {
        const auto now = steady_clock::now();
        const auto until =
            progress.IsShown() ? std::min(deadline, now + PROGRESS_PERIOD) : deadline;
        switch (client.Receive(until, line)) {
            case ConsoleClient::Result::LINE:
                Take(line, view, progress, context);
                break;
            case ConsoleClient::Result::WAITING:
                progress.Show(view.Progress(
                    std::chrono::duration_cast<milliseconds>(steady_clock::now() - begin)));
                break;
            case ConsoleClient::Result::ENDED:
                progress.Clear();
                throw CommandError(EXIT_NO_ANSWER, "pm-console has ended the connection");
        }
        if (!view.IsDone() && steady_clock::now() >= deadline) {
            progress.Clear();
            throw CommandError(EXIT_NO_ANSWER, "pm-console does not answer");
        }
    }
    context.exitCode = view.GetExitCode();
}

}  // namespace ProcMgr::Pmctl
