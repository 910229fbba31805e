#include "console/console_lines.h"

#include <nlohmann/json.hpp>

namespace ProcMgr::Console {
namespace {

// Keeps the order of the keys.
using nlohmann::ordered_json;

// Bytes that are no UTF-8 are replaced.
std::string Line(const ordered_json& object) {
    return object.dump(-1, ' ', false, ordered_json::error_handler_t::replace) + "\n";
}

ordered_json FormatArguments(const Request& request) {
    ordered_json arguments = ordered_json::object();
    if (HasFile(request.command)) {
        arguments["path"] = request.file.path;
        arguments["match"] = request.file.matchData;
        return arguments;
    }
    if (!request.values.argv.empty()) {
        arguments["args"] = request.values.argv;
    }
    for (const auto& [index, values] : request.values.dynamicPara) {
        if (index == ENVIRONMENT) {
            arguments["env"] = values;
        } else {
            arguments[index == PROGRAM ? "exec" : "vf_id"] = values.at(0);
        }
    }
    return arguments;
}

}  // namespace

std::string FormatRequest(const Request& request) {
    return Line({{"version", PROTOCOL_VERSION},
                 {"command", NameOf(request.command)},
                 {"names", request.names},
                 {"arguments", FormatArguments(request)},
                 {"wait", request.isWaiting},
                 {"timeout_ms", request.timeout.count()}});
}

std::string SentLine() {
    return Line({{"event", "sent"}});
}

std::string NewsLine(const News& news) {
    return Line({{"event", "report"},
                 {"name", news.name},
                 {"type", news.type},
                 {"result", news.result},
                 {"pid", news.pid},
                 {"text", news.text},
                 {"final", news.isFinal},
                 {"ok", news.isOk}});
}

std::string DoneLine() {
    return Line({{"event", "done"}, {"ok", true}});
}

std::string DoneLine(const std::string& code, const std::string& error) {
    return Line({{"event", "done"}, {"ok", false}, {"code", code}, {"error", error}});
}

}  // namespace ProcMgr::Console
