#include "pmctl/control_view.h"

#include <array>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <string_view>
#include <utility>

#include "pmctl/context.h"
#include "pmctl/people.h"

namespace ProcMgr::Pmctl {
namespace {

using nlohmann::json;
using namespace std::string_view_literals;

// The exit code of an answer with this code. Code::FAILED is the answer no.
constexpr auto EXITS = std::to_array<std::pair<std::string_view, int>>({
    {Console::Code::TIMED_OUT, EXIT_TIMED_OUT},
    {Console::Code::NO_DAEMON, EXIT_NO_ANSWER},
    {Console::Code::BUSY, EXIT_NO_ANSWER},
    {Console::Code::PERMISSION, EXIT_NO_PERMISSION},
    {Console::Code::REQUEST, EXIT_USAGE},
});

// By Console::Command; the requests for files have no applications.
constexpr std::array ACTIONS = {"starting"sv, "stopping"sv, "restarting"sv, "asking"sv};

// What the daemon tells about a file is in its log only.
constexpr const char* FILE_TAKEN =
    "taken by the daemon; if it cannot use the file, its log has the reason\n";

[[noreturn]] void ThrowBadAnswer() {
    throw CommandError(EXIT_BAD_ANSWER,
                       "an answer of pm-console that this pmctl does not understand");
}

std::string DescribeNews(const json& news) {
    const std::string text = Printable(news.at("name").get<std::string>()) + ": " +
                             Printable(news.at("text").get<std::string>());
    const auto pid = news.at("pid").get<uint32_t>();
    const bool isRunning = news.at("type").get<std::string>().starts_with("RUNNING");
    return text + (isRunning && pid != 0 ? ", pid " + std::to_string(pid) : "") + "\n";
}

void ThrowUnlessFailed(const json& done) {
    const auto code = done.value("code", std::string());
    if (code == Console::Code::FAILED) {
        return;
    }
    for (const auto& [name, exitCode] : EXITS) {
        if (name == code) {
            throw CommandError(exitCode, done.at("error").get<std::string>());
        }
    }
    ThrowBadAnswer();
}

}  // namespace

ControlView::ControlView(const Console::Request& request)
    : request_(request), open_(request.names.begin(), request.names.end()) {}

std::string ControlView::Take(const std::string& line) {
    try {
        const json answer = json::parse(line);
        const auto event = answer.at("event").get<std::string>();
        if (event == "report") {
            if (answer.at("final").get<bool>()) {
                open_.erase(answer.at("name").get<std::string>());
            }
            return DescribeNews(answer);
        }
        if (event != "done") {
            return {};
        }
        isDone_ = true;
        if (!answer.at("ok").get<bool>()) {
            exitCode_ = EXIT_NO;
            ThrowUnlessFailed(answer);
        }
        return Console::HasFile(request_.command) ? request_.file.path + ": " + FILE_TAKEN : "";
    } catch (const json::exception&) {
        ThrowBadAnswer();
    }
}

std::string ControlView::Progress(std::chrono::milliseconds elapsed) const {
    const auto command = static_cast<size_t>(request_.command);
    if (open_.empty() || command >= ACTIONS.size()) {
        return {};
    }
    std::string names;
    for (const std::string& name : open_) {
        names += (names.empty() ? "" : ", ") + name;
    }
    const auto tenths = elapsed.count() / 100;
    return names + ": " + std::string(ACTIONS.at(command)) + " ... " + std::to_string(tenths / 10) +
           "." + std::to_string(tenths % 10) + " s";
}

}  // namespace ProcMgr::Pmctl
