#include "console/console_request.h"

#include <algorithm>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "message/text_fields.h"

namespace ProcMgr::Console {
namespace {

using nlohmann::json;

// An object in the request's object, and a list or an object in that.
constexpr int DEPTH_MAX = 3;
constexpr size_t NAME_MAX_BYTES = 127;

// Leaves ParseRequest() with the text.
class Refusal : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Counts brackets outside of texts, because the parser has no bound of its own.
bool IsShallow(std::string_view line) {
    int depth = 0;
    bool isText = false;
    for (size_t i = 0; i < line.size(); ++i) {
        const char c = line[i];
        if (c == '"') {
            isText = !isText;
        } else if (isText) {
            i += c == '\\' ? 1 : 0;
        } else if (c == '{' || c == '[') {
            if (++depth > DEPTH_MAX) {
                return false;
            }
        } else if (c == '}' || c == ']') {
            --depth;
        }
    }
    return true;
}

const json* Find(const json& object, const char* key) {
    const auto entry = object.find(key);
    return entry == object.end() ? nullptr : &*entry;
}

bool IsControl(char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte < ' ' || byte == 0x7F;
}

std::string TextOf(const json& value, const std::string& key) {
    if (!value.is_string()) {
        throw Refusal("\"" + key + "\" is not made of texts");
    }
    auto text = value.get<std::string>();
    // The daemon logs the text; a control character would forge lines there, or steer a terminal.
    if (std::any_of(text.begin(), text.end(), IsControl)) {
        throw Refusal("\"" + key + "\" holds a control character");
    }
    return text;
}

std::vector<std::string> TextsOf(const json& value, const std::string& key) {
    if (!value.is_array()) {
        throw Refusal("\"" + key + "\" is not a list");
    }
    std::vector<std::string> texts;
    for (const json& element : value) {
        texts.push_back(TextOf(element, key));
    }
    return texts;
}

// Texts that become fields of a record of the daemon.
std::vector<std::string> FieldsOf(const json& value, const std::string& key) {
    std::vector<std::string> fields = TextsOf(value, key);
    for (const std::string& field : fields) {
        if (field.find(Message::SEPARATOR) != std::string::npos) {
            throw Refusal("\"" + key + "\" holds '#', which separates the fields of a record");
        }
    }
    return fields;
}

std::string FieldOf(const json& value, const std::string& key) {
    return FieldsOf(json::array({value}), key).front();
}

void CheckKeys(const json& object, std::initializer_list<std::string_view> keys) {
    for (const auto& entry : object.items()) {
        if (std::find(keys.begin(), keys.end(), entry.key()) == keys.end()) {
            throw Refusal("unknown key \"" + entry.key() + "\"");
        }
    }
}

// As in a manifest.
bool IsName(const std::string& name) {
    return !name.empty() && name.size() <= NAME_MAX_BYTES &&
           std::none_of(name.begin(), name.end(), [](char c) {
               return IsControl(c) || std::string_view(" #/=,").find(c) != std::string_view::npos;
           });
}

Command ParseCommand(const json& top) {
    const json* command = Find(top, "command");
    for (const auto& [value, name] : COMMAND_NAMES) {
        if (command != nullptr && command->is_string() &&
            command->get_ref<const std::string&>() == name) {
            return value;
        }
    }
    throw Refusal("unknown command");
}

std::vector<std::string> ParseNames(const json& top, Command command) {
    const json* value = Find(top, "names");
    const auto given = value == nullptr ? std::vector<std::string>() : TextsOf(*value, "names");
    if (given.size() > NAMES_MAX) {
        throw Refusal("more than " + std::to_string(NAMES_MAX) + " names");
    }
    std::vector<std::string> names;
    for (const std::string& name : given) {
        if (!IsName(name)) {
            throw Refusal("\"" + name + "\" cannot be the name of an application");
        }
        if (std::find(names.begin(), names.end(), name) == names.end()) {
            names.push_back(name);
        }
    }
    if (names.empty() != HasFile(command)) {
        throw Refusal(names.empty() ? "no names" : "names beside a file");
    }
    return names;
}

void ParseWait(const json& top, Request& request) {
    if (const json* wait = Find(top, "wait")) {
        if (!wait->is_boolean()) {
            throw Refusal("\"wait\" is neither true nor false");
        }
        request.isWaiting = wait->get<bool>();
    }
    if (const json* timeout = Find(top, "timeout_ms")) {
        const auto most = static_cast<uint64_t>(TIMEOUT_MAX.count());
        if (!timeout->is_number_unsigned() || timeout->get<uint64_t>() < 1 ||
            timeout->get<uint64_t>() > most) {
            throw Refusal("\"timeout_ms\" is not a number from 1 to " + std::to_string(most));
        }
        request.timeout = std::chrono::milliseconds(timeout->get<uint64_t>());
    }
}

void ParseValues(const json& arguments, Message::StartAppInfo& values) {
    CheckKeys(arguments, {"args", "exec", "vf_id", "env"});
    if (const json* args = Find(arguments, "args")) {
        values.argv = FieldsOf(*args, "args");
    }
    if (const json* exec = Find(arguments, "exec")) {
        values.dynamicPara[PROGRAM] = {FieldOf(*exec, "exec")};
    }
    if (const json* vfId = Find(arguments, "vf_id")) {
        values.dynamicPara[VF_ID] = {FieldOf(*vfId, "vf_id")};
    }
    if (const json* env = Find(arguments, "env")) {
        values.dynamicPara[ENVIRONMENT] = FieldsOf(*env, "env");
        for (const std::string& entry : values.dynamicPara[ENVIRONMENT]) {
            if (entry.find('=') == std::string::npos || entry.front() == '=') {
                throw Refusal("\"" + entry + "\" is not KEY=VALUE");
            }
        }
    }
}

void ParseFile(const json& arguments, Message::StartupCfgInfo& file) {
    CheckKeys(arguments, {"path", "match"});
    const json* path = Find(arguments, "path");
    file.path = path == nullptr ? std::string() : FieldOf(*path, "path");
    if (!file.path.starts_with('/')) {
        throw Refusal("\"path\" is not an absolute path");
    }
    const json* match = Find(arguments, "match");
    if (match != nullptr && !match->is_object()) {
        throw Refusal("\"match\" is not an object");
    }
    if (match == nullptr) {
        return;
    }
    for (const auto& entry : match->items()) {
        file.matchData[FieldOf(json(entry.key()), "match")] = FieldOf(entry.value(), "match");
    }
}

void ParseArguments(const json& top, Request& request) {
    static const json NONE = json::object();
    const json* found = Find(top, "arguments");
    const json& arguments = found == nullptr ? NONE : *found;
    if (!arguments.is_object()) {
        throw Refusal("\"arguments\" is not an object");
    }
    if (IsLaunch(request.command)) {
        ParseValues(arguments, request.values);
    } else if (HasFile(request.command)) {
        ParseFile(arguments, request.file);
    } else {
        CheckKeys(arguments, {});
    }
}

Request Parse(std::string_view line) {
    const json top = json::parse(line.begin(), line.end(), nullptr, false);
    if (!top.is_object()) {
        throw Refusal("the request is not a JSON object");
    }
    const json* version = Find(top, "version");
    if (version == nullptr || *version != PROTOCOL_VERSION) {
        throw Refusal("this pm-console speaks version " + std::to_string(PROTOCOL_VERSION));
    }
    CheckKeys(top, {"version", "command", "names", "arguments", "wait", "timeout_ms"});
    Request request;
    request.command = ParseCommand(top);
    request.names = ParseNames(top, request.command);
    ParseArguments(top, request);
    ParseWait(top, request);
    return request;
}

}  // namespace

ParsedRequest ParseRequest(std::string_view line) {
    if (!IsShallow(line)) {
        return {std::nullopt, "the request is nested too deeply"};
    }
    try {
        return {Parse(line), {}};
    } catch (const Refusal& refusal) {
        return {std::nullopt, refusal.what()};
    } catch (const json::exception& error) {
        return {std::nullopt, error.what()};
    }
}

}  // namespace ProcMgr::Console
