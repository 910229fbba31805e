// pmctl_bench [--runs N] [--services N]
//
// Measures how long `pmctl status` takes, from its start to its end, with a daemon of N services
// (500) that answers at once. Prints the median and the 95th percentile of N runs (101). With
// --print it writes the document of that daemon instead.
#include <fcntl.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "bench/bench_support.h"
#include "main/common/numbers.h"
#include "wire/unique_fd.h"

namespace {

constexpr int64_t MS = 1000000;
constexpr int64_t BEGIN = 20000 * MS;  // of the daemon
constexpr int64_t NOW = 4000000 * MS;

std::string Number(int64_t number) {
    return std::to_string(number);
}

// Services start 4 ms after each other; each depends on one before it, every 40th has failed.
std::string Service(int64_t i) {
    const bool hasFailed = i % 40 == 39;
    const std::string name = "service_" + Number(i);
    const std::string start = Number(BEGIN + 50 * MS + i * 4 * MS);
    const std::string ready = Number(BEGIN + 60 * MS + i * 4 * MS + (i * 37) % 200 * MS);
    std::string text = "{\"name\":\"" + name + "\",\"kind\":\"service\",\"state\":\"";
    text += hasFailed ? "TERMINATED\",\"pid\":0" : "RUNNING\",\"pid\":" + Number(5000000 + i);
    text += ",\"owner\":\"\",\"policy\":\"on-failure\",\"priority\":-1,\"reporting\":true,";
    text += "\"ready\":true,\"heartbeat\":false,\"exec\":\"/usr/bin/" + name + "\",\"uid\":0,";
    text += "\"gid\":0,\"depends\":[" + (i == 0 ? "" : "\"service_" + Number(i * 2 / 3) + '"') +
            "],\"starts\":";
    text += hasFailed ? "6" : "1";
    text += ",\"restarts_in_last_minute\":0,\"last_exit\":";
    text += hasFailed ? "{\"pid\":999,\"status\":768,\"text\":\"exited with status 3\",\"at_ns\":" +
                            Number(NOW - 1000 * MS) + ",\"expected\":false}"
                      : "null";
    text += ",\"why\":\"";
    text += hasFailed ? "exited with status 3" : "";
    text +=
        "\",\"next\":\"nothing, it "
        "runs\",\"settled\":true,\"start_failed\":false,\"times\":{\"waiting_ns\":" +
        Number(BEGIN + 50 * MS);
    text += ",\"started_ns\":" + start + ",\"running_ns\":" + ready + ",\"ready_ns\":" + ready;
    text += ",\"ended_ns\":0},\"boot\":{\"waiting_ns\":" + Number(BEGIN + 50 * MS);
    text += ",\"released_ns\":" + start + ",\"started_ns\":" + start + ",\"running_ns\":" + ready;
    text += "},\"groups\":{\"cpu\":\"\",\"cpuset\":\"\",\"blkio\":\"\",\"other\":{}},\"cores\":[],";
    text += "\"cpu_ms\":" + Number(i * 13) + ",\"rss_kib\":" + Number(900 + i * 11);
    return text + ",\"threads\":2,\"output\":\"inherit\"}";
}

std::string Event(int64_t i) {
    return "{\"number\":" + Number(i + 1) + ",\"at_ns\":" + Number(BEGIN + 60 * MS + i * MS) +
           ",\"kind\":\"service\",\"name\":\"service_" + Number(i) +
           "\",\"pid\":" + Number(5000000 + i) +
           ",\"from\":\"STARTING\",\"to\":\"RUNNING\",\"cause\":\"reported\",\"detail\":\"\"}";
}

std::string List(int64_t count, std::string (*make)(int64_t)) {
    std::string list = "[";
    for (int64_t i = 0; i < count; ++i) {
        list += (i == 0 ? "" : ",") + make(i);
    }
    return list + ']';
}

std::string Document(int64_t services) {
    constexpr int64_t EVENTS = 512;
    return "{\"version\":1,\"clock\":{\"monotonic_ns\":" + Number(NOW) +
           ",\"realtime_ns\":1795347433123000000},\"daemon\":{\"version\":\"1.0.0\",\"pid\":1,"
           "\"config\":\"/etc/base_service.yaml\",\"quick_start\":false,\"phase\":\"running\","
           "\"phases\":[{\"name\":\"main\",\"at_ns\":" +
           Number(BEGIN) +
           "}],\"cpu_ms\":10,\"rss_kib\":9000,\"threads\":9,\"log_lines_dropped\":0},\"counters\":{"
           "\"starts\":1,\"start_failures\":0,\"exits\":0,\"unknown_exits\":0,\"state_changes\":1,"
           "\"status_requests\":1,\"status_clients_refused\":0,\"status_clients_dropped\":0,"
           "\"output_lines_dropped\":0},\"services\":" +
           List(services, Service) +
           ",\"applications\":[],\"pipes\":[],\"faults\":[],\"events\":" + List(EVENTS, Event) +
           "}\n";
}

// Answers every client with the document, for ever.
void Serve(const Wire::UniqueFd& listener, const std::string& document) {
    for (;;) {
        const Wire::UniqueFd client(accept4(listener.Get(), nullptr, nullptr, SOCK_CLOEXEC));
        char request[512];
        if (!client.IsValid() || read(client.Get(), request, sizeof(request)) <= 0) {
            continue;
        }
        for (size_t sent = 0; sent < document.size();) {
            const ssize_t size =
                send(client.Get(), document.data() + sent, document.size() - sent, MSG_NOSIGNAL);
            if (size <= 0) {
                break;
            }
            sent += static_cast<size_t>(size);
        }
    }
}

Wire::UniqueFd Listen(const std::string& path) {
    Wire::UniqueFd listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof(address.sun_path), "%s", path.c_str());
    if (bind(listener.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
        listen(listener.Get(), 16) != 0) {
        std::perror(path.c_str());
        std::exit(1);
    }
    return listener;
}

// Milliseconds of one run; its output goes to /dev/null.
double Run(const std::string& socket) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    const char* argv[] = {PMCTL, "--socket", socket.c_str(), "status", nullptr};
    const uint64_t start = Bench::Now();
    pid_t pid = -1;
    int status = -1;
    if (posix_spawn(&pid, PMCTL, &actions, nullptr, const_cast<char**>(argv), environ) != 0 ||
        waitpid(pid, &status, 0) != pid || status != 0) {
        std::fprintf(stderr, "pmctl_bench: %s failed\n", PMCTL);
        std::exit(1);
    }
    posix_spawn_file_actions_destroy(&actions);
    return static_cast<double>(Bench::Now() - start) / MS;
}

}  // namespace

int main(int argc, char** argv) {
    int runs = 101;
    int64_t services = 500;
    bool isPrinting = false;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--runs") == 0 && i + 1 < argc) {
            runs = ProcMgr::ParseNumber<int>(argv[++i]).value_or(runs);
        } else if (std::strcmp(argv[i], "--services") == 0 && i + 1 < argc) {
            services = ProcMgr::ParseNumber<int64_t>(argv[++i]).value_or(services);
        } else {
            isPrinting = std::strcmp(argv[i], "--print") == 0;
        }
    }
    const std::string document = Document(services);
    if (isPrinting) {
        std::fputs(document.c_str(), stdout);
        return 0;
    }
    char directory[] = "/tmp/pmctl-bench-XXXXXX";
    if (mkdtemp(directory) == nullptr) {
        std::perror("mkdtemp");
        return 1;
    }
    const std::string socket = std::string(directory) + "/socket";
    const Wire::UniqueFd listener = Listen(socket);
    std::thread([&] { Serve(listener, document); }).detach();
    std::vector<double> samples(static_cast<size_t>(std::max(runs, 1)));
    std::generate(samples.begin(), samples.end(), [&] { return Run(socket); });
    std::printf("pmctl status of %lld services: median %.1f ms, 95th percentile %.1f ms\n",
                static_cast<long long>(services), Bench::Median(samples),
                Bench::Percentile(samples, 95));
    std::fflush(stdout);
    unlink(socket.c_str());
    rmdir(directory);
    std::_Exit(0);  // without the destructors of what the serving thread uses
}
