#include "pmctl/snapshot.h"

#include <nlohmann/json.hpp>

#include "pmctl/context.h"
#include "pmctl/people.h"

namespace ProcMgr::Pmctl {
namespace {

using Json = nlohmann::json;

constexpr int64_t PROTOCOL_VERSION = 1;
constexpr int DEPTH_MAX = 16;

[[noreturn]] void Fail(const std::string& text) {
    throw CommandError(EXIT_BAD_ANSWER, Printable(text));
}

[[noreturn]] void FailField(const std::string& path, const char* expected) {
    Fail("the field " + path + " of the daemon's answer is not " + expected);
}

std::optional<int64_t> WholeNumber(const Json& value) {
    if (!value.is_number_integer()) {
        return std::nullopt;
    }
    const bool isTooLarge = value.is_number_unsigned()
                                ? value.get<uint64_t>() >= static_cast<uint64_t>(NUMBER_MAX)
                                : value.get<int64_t>() <= -NUMBER_MAX;
    return isTooLarge ? std::nullopt : std::optional(value.get<int64_t>());
}

std::string TextOf(const Json& value, const std::string& path) {
    if (!value.is_string()) {
        FailField(path, "a text");
    }
    return value.get<std::string>();
}

int64_t NumberOf(const Json& value, const std::string& path) {
    const auto number = WholeNumber(value);
    if (!number) {
        FailField(path, "a whole number in range");
    }
    return *number;
}

// A JSON object of the answer, with its path for messages.
class Object {
public:
    Object(const Json& value, std::string path) : value_(value), path_(std::move(path)) {
        if (!value.is_object()) {
            FailField(path_.empty() ? "(all)" : path_, "an object");
        }
    }

    std::string Text(const char* key) const {
        const Json& value = Get(key);
        return value.is_string() ? value.get<std::string>() : TextOf(value, PathOf(key));
    }
    int64_t Number(const char* key) const {
        const auto number = WholeNumber(Get(key));
        return number ? *number : NumberOf(Get(key), PathOf(key));
    }
    // A number that is not negative: a time, a count or an id.
    int64_t Count(const char* key) const {
        const int64_t number = Number(key);
        if (number < 0) {
            FailField(PathOf(key), "a number from 0");
        }
        return number;
    }
    bool Flag(const char* key) const {
        const Json& value = Get(key);
        if (!value.is_boolean()) {
            FailField(PathOf(key), "true or false");
        }
        return value.get<bool>();
    }
    Object Member(const char* key) const { return {Get(key), PathOf(key)}; }
    bool IsNull(const char* key) const { return Get(key).is_null(); }
    bool Has(const char* key) const { return value_.contains(key); }
    // Of a field that an older daemon does not have.
    std::string OptionalText(const char* key) const { return Has(key) ? Text(key) : ""; }
    int64_t OptionalCount(const char* key) const { return Has(key) ? Count(key) : 0; }
    bool OptionalFlag(const char* key) const { return Has(key) && Flag(key); }

    // The items of an array, each made by `make` of the item and its path.
    template <typename Make>
    auto List(const char* key, Make make) const {
        const Json& array = Get(key);
        if (!array.is_array()) {
            FailField(PathOf(key), "an array");
        }
        std::vector<decltype(make(array, std::string()))> items;
        items.reserve(array.size());
        for (const Json& item : array) {
            items.push_back(make(item, PathOf(key) + '[' + std::to_string(items.size()) + ']'));
        }
        return items;
    }

    const Json& Get(const char* key) const {
        const auto found = value_.find(key);
        if (found == value_.end()) {
            Fail("the daemon's answer has no field " + PathOf(key));
        }
        return *found;
    }
    std::string PathOf(const std::string& key) const {
        return path_.empty() ? key : path_ + '.' + key;
    }

private:
    const Json& value_;
    const std::string path_;
};

// Looks at brackets outside of texts only: what else is wrong is found by the parser, whose memory
// for an answer of nothing but brackets would be many times that of the answer.
bool IsTooDeep(std::string_view answer) {
    int depth = 0;
    bool isText = false;
    for (size_t i = 0; i < answer.size(); ++i) {
        const char c = answer[i];
        if (isText) {
            i += c == '\\' ? 1 : 0;
            isText = c != '"';
        } else if (c == '[' || c == '{') {
            if (++depth > DEPTH_MAX) {
                return true;
            }
        } else {
            depth -= c == ']' || c == '}' ? 1 : 0;
            isText = c == '"';
        }
    }
    return false;
}

Json ParseJson(std::string_view answer) {
    if (IsTooDeep(answer)) {
        Fail("the daemon's answer is nested too deeply");
    }
    Json parsed = Json::parse(answer.begin(), answer.end(), nullptr, false);
    if (parsed.is_discarded()) {
        Fail("the daemon's answer is no JSON: does the socket belong to another program?");
    }
    return parsed;
}

// The version comes first: nothing else is known about an answer of another version.
void CheckAnswer(const Object& answer) {
    const int64_t version = answer.Number("version");
    if (version != PROTOCOL_VERSION) {
        Fail("the daemon speaks version " + std::to_string(version) +
             " of the status protocol, this pmctl version " + std::to_string(PROTOCOL_VERSION) +
             ": use the pmctl that belongs to the daemon");
    }
    if (answer.Has("error")) {
        Fail("the daemon refuses the request: " + answer.Text("error"));
    }
}

Clocks ReadClocks(const Object& object) {
    return {object.Count("monotonic_ns"), object.Count("realtime_ns")};
}

DaemonStatus ReadDaemon(const Object& object) {
    DaemonStatus daemon;
    daemon.version = object.Text("version");
    daemon.pid = object.Count("pid");
    daemon.config = object.Text("config");
    daemon.configError = object.OptionalText("config_error");
    daemon.isQuickStart = object.Flag("quick_start");
    daemon.phase = object.Text("phase");
    daemon.phases = object.List("phases", [](const Json& item, const std::string& path) {
        const Object phase(item, path);
        return Phase{phase.Text("name"), phase.Count("at_ns")};
    });
    daemon.uptimeMs = object.OptionalCount("uptime_ms");
    daemon.cpuMs = object.Count("cpu_ms");
    daemon.rssKib = object.Count("rss_kib");
    daemon.threads = object.Count("threads");
    daemon.logLinesDropped = object.Count("log_lines_dropped");
    return daemon;
}

Counters ReadCounters(const Object& object) {
    Counters counters;
    for (const CounterField& field : COUNTER_FIELDS) {
        counters.*field.value = object.Count(field.key);
    }
    return counters;
}

LastExit ReadLastExit(const Object& object) {
    return {object.Count("pid"), object.Number("status"), object.Text("text"),
            object.Count("at_ns"), object.Flag("expected")};
}

ServiceTimes ReadTimes(const Object& object) {
    return {object.Count("waiting_ns"), object.Count("started_ns"),
            object.Count("running_ns"), object.Count("ready_ns"),
            object.Count("ended_ns"),   object.OptionalCount("changed_ns")};
}

BootTimes ReadBoot(const Object& object) {
    return {object.Count("waiting_ns"), object.Count("released_ns"), object.Count("started_ns"),
            object.Count("running_ns")};
}

// The named groups, then the others in the order of their names; those that are not set are left
// out.
std::vector<std::pair<std::string, std::string>> ReadGroups(const Object& object) {
    std::vector<std::pair<std::string, std::string>> groups;
    for (const char* key : {"cpu", "cpuset", "blkio"}) {
        groups.emplace_back(key, object.Text(key));
    }
    const Object others = object.Member("other");
    for (const auto& [key, value] : object.Get("other").items()) {
        groups.emplace_back(key, TextOf(value, others.PathOf(key)));
    }
    std::erase_if(groups, [](const auto& group) { return group.second.empty(); });
    return groups;
}

// What the daemon does with the service, and why.
void ReadSupervision(const Object& object, Service& service) {
    service.starts = object.Count("starts");
    service.restartsInLastMinute = object.Count("restarts_in_last_minute");
    if (!object.IsNull("last_exit")) {
        service.lastExit = ReadLastExit(object.Member("last_exit"));
    }
    service.why = object.Text("why");
    service.next = object.Text("next");
    service.isSettled = object.OptionalFlag("settled");
    service.hasFailedStart = object.OptionalFlag("start_failed");
    service.times = ReadTimes(object.Member("times"));
    if (!object.IsNull("boot")) {
        service.boot = ReadBoot(object.Member("boot"));
    }
}

// What the service uses.
void ReadResources(const Object& object, Service& service) {
    service.groups = ReadGroups(object.Member("groups"));
    service.cores = object.List("cores", NumberOf);
    service.cpuMs = object.Count("cpu_ms");
    service.rssKib = object.Count("rss_kib");
    service.threads = object.Count("threads");
    service.output = object.Text("output");
    if (object.Has("output_tail")) {
        service.outputTail = object.List("output_tail", TextOf);
    }
}

Service ReadService(const Json& item, const std::string& path) {
    const Object object(item, path);
    Service service;
    service.name = object.Text("name");
    service.kind = object.Text("kind");
    service.state = object.Text("state");
    service.pid = object.Count("pid");
    service.owner = object.Text("owner");
    service.policy = object.Text("policy");
    service.priority = object.Number("priority");
    service.isReporting = object.Flag("reporting");
    service.isReady = object.Flag("ready");
    service.hasHeartbeat = object.Flag("heartbeat");
    service.exec = object.Text("exec");
    service.uid = object.Number("uid");
    service.gid = object.Number("gid");
    service.depends = object.List("depends", TextOf);
    ReadSupervision(object, service);
    ReadResources(object, service);
    return service;
}

Pipe ReadPipe(const Json& item, const std::string& path) {
    const Object object(item, path);
    return {object.Text("owner"),           object.Count("pid"),           object.Flag("open"),
            object.Count("queued_reports"), object.Count("queued_states"), object.Count("missed")};
}

Fault ReadFault(const Json& item, const std::string& path) {
    const Object object(item, path);
    return {object.Text("node"), object.Text("name"), object.Number("event"), object.Text("text")};
}

Event ReadEvent(const Json& item, const std::string& path) {
    const Object object(item, path);
    return {object.Count("number"), object.Count("at_ns"), object.Text("kind"),
            object.Text("name"),    object.Count("pid"),   object.Text("from"),
            object.Text("to"),      object.Text("cause"),  object.Text("detail")};
}

}  // namespace

Snapshot ParseSnapshot(std::string_view answer) {
    const Json parsed = ParseJson(answer);
    const Object object(parsed, "");
    CheckAnswer(object);
    Snapshot snapshot;
    snapshot.clock = ReadClocks(object.Member("clock"));
    snapshot.daemon = ReadDaemon(object.Member("daemon"));
    snapshot.counters = ReadCounters(object.Member("counters"));
    snapshot.services = object.List("services", ReadService);
    snapshot.applications = object.List("applications", ReadService);
    snapshot.pipes = object.List("pipes", ReadPipe);
    snapshot.faults = object.List("faults", ReadFault);
    snapshot.events = object.List("events", ReadEvent);
    return snapshot;
}

EventsAnswer ParseEvents(std::string_view answer) {
    const Json parsed = ParseJson(answer);
    const Object object(parsed, "");
    CheckAnswer(object);
    return {ReadClocks(object.Member("clock")), object.Member("daemon").Count("pid"),
            object.List("events", ReadEvent)};
}

}  // namespace ProcMgr::Pmctl
