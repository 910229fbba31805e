#include "pmctl/ask.h"

#include <ostream>

#include "pmctl/find_name.h"
#include "pmctl/status_client.h"

namespace ProcMgr::Pmctl {

Answer AskStatus(const Context& context) {
    std::string text = AskDaemon(context.statusSocket, "status");
    Snapshot snapshot = ParseSnapshot(text);
    return {std::move(text), std::move(snapshot)};
}

Answer AskStatus(const Context& context, const std::string& name) {
    if (name.empty()) {
        FailUnknown(AskStatus(context).snapshot, name);
    }
    std::string text = AskDaemon(context.statusSocket, StatusRequest(name));
    Snapshot snapshot = ParseSnapshot(text);
    if (FindNamed(snapshot, name).empty()) {
        FailUnknown(AskStatus(context).snapshot, name);
    }
    return {std::move(text), std::move(snapshot)};
}

EventsAnswer AskEvents(const Context& context, int64_t number) {
    return ParseEvents(AskDaemon(context.statusSocket, "events " + std::to_string(number)));
}

void PrintDocument(const Context& context, const std::string& json) {
    static constexpr std::string_view DIGITS = "0123456789abcdef";
    std::string line;
    for (size_t i = 0; i < json.size(); ++i) {
        const auto byte = static_cast<unsigned char>(json[i]);
        // U+0080 to U+009F are the bytes c2 80 to c2 9f.
        const bool isHigh =
            byte == 0xc2 && i + 1 < json.size() && static_cast<unsigned char>(json[i + 1]) < 0xa0;
        if (byte == 0x7f || isHigh) {
            const auto code = static_cast<unsigned char>(isHigh ? json[++i] : json[i]);
            line += "\\u00";
            line += DIGITS[code >> 4U];
            line += DIGITS[code & 0xfU];
        } else {
            line += byte < ' ' ? ' ' : json[i];
        }
    }
    context.out << line << '\n';
}

void RefuseJson(const Context& context, const std::string& command) {
    if (context.isJson) {
        throw CommandError(EXIT_USAGE, command + " has no JSON form: use pmctl --json status");
    }
}

}  // namespace ProcMgr::Pmctl
