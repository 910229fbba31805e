// test_service ACTION...
//
// A service of the end-to-end tests. It performs the actions of its command line in order:
//   touch FILE           makes FILE
//   dump FILE            writes the attributes of the process to FILE: see Dump
//   await FILE           waits until FILE exists
//   ignore-term          ignores SIGTERM
//   note-term FILE NAME  at SIGTERM adds the line NAME to FILE and exits with 0
//   attach NAME FILE     attaches to the pipe of the service NAME; adds the state reports that
//                        arrive on it to FILE, one line "APP TYPE" each
//   report STATE         reports "running" or "terminating" over the attached pipe
//   breed COUNT          starts COUNT threads, one each 20 ms, that may run on every core
//   upload NAME FILE     registers as NAME for all groups, adds the line "RESULT GROUP..." to FILE
//   hello SOCKET         connects to SOCKET once
//   skip-if FILE COUNT   skips the next COUNT arguments if FILE exists, else makes FILE
//   beat NAME            sends heartbeats as NAME
//   kill-group           sends SIGTERM to its process group
//   pose TEXT FILE PAD   shows TEXT as its command line, unreadable to its own user; then writes
//                        its pid to FILE; PAD is at least as long as a page
//   stay                 waits for a signal
//   exit CODE            ends
#include <fcntl.h>
#include <grp.h>
#include <sched.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "agent/heartbeat_sender.h"
#include "agent/owner_channel.h"
#include "agent/packet_socket.h"
#include "agent/upload.h"

namespace {

using namespace std::chrono_literals;
using ProcMgr::Agent::OwnerChannel;

std::vector<std::string> g_arguments;
size_t g_at = 0;           // the next argument
char* g_memory = nullptr;  // the command line as /proc shows it
size_t g_memorySize = 0;
std::unique_ptr<OwnerChannel> g_channel;
std::unique_ptr<ProcMgr::Agent::HeartbeatSender> g_heartbeat;
std::string g_noteLine;
int g_noteFd = -1;

std::string TakeArgument() {
    if (g_at >= g_arguments.size()) {
        std::cerr << "test_service: an argument is missing\n";
        _exit(64);
    }
    return g_arguments[g_at++];
}

// Writes a file that readers see either whole or not at all.
void Publish(const std::string& path, const std::string& text) {
    std::ofstream(path + ".part") << text << std::flush;
    rename((path + ".part").c_str(), path.c_str());
}

// Lines "KEY=VALUE": uid, gid, groups, fds (numbers with a blank each), the lines SigBlk and SigIgn
// of the process's status, arg for each argument, then the environment. The file appears whole.
void Dump(const std::string& path) {
    std::ostringstream out;
    out << "uid=" << getuid() << "\ngid=" << getgid() << "\ngroups=";
    std::vector<gid_t> groups(static_cast<size_t>(getgroups(0, nullptr)));
    const int count = getgroups(static_cast<int>(groups.size()), groups.data());
    for (const gid_t group : std::set<gid_t>(groups.begin(), groups.begin() + count)) {
        out << group << " ";
    }
    out << "\nfds=";
    for (int fd = 0; fd < 1024; ++fd) {
        if (fcntl(fd, F_GETFD) >= 0) {
            out << fd << " ";
        }
    }
    out << "\n";
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with("SigBlk") || line.starts_with("SigIgn")) {
            out << line.substr(0, 6) << "=" << line.substr(8) << "\n";
        }
    }
    for (const std::string& argument : g_arguments) {
        out << "arg=" << argument << "\n";
    }
    for (char** variable = environ; *variable != nullptr; ++variable) {
        out << *variable << "\n";
    }
    Publish(path, out.str());
}

void OnTerm(int /*signal*/) {
    [[maybe_unused]] const ssize_t size = write(g_noteFd, g_noteLine.data(), g_noteLine.size());
    _exit(0);
}

void NoteTerm(const std::string& file, const std::string& name) {
    g_noteLine = name + "\n";
    g_noteFd = open(file.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    signal(SIGTERM, OnTerm);
}

void Attach(const std::string& name, const std::string& file) {
    g_channel = std::make_unique<OwnerChannel>(name);
    g_channel->OnAppState([file](const auto& infos) {
        std::ofstream out(file, std::ios::app);
        for (const auto& info : infos) {
            out << info.appName << " " << ProcMgr::GetReportAppStateTypeStr(info.reportType)
                << std::endl;
        }
    });
    g_channel->Attach(30s);
}

void Await(const std::string& file) {
    while (access(file.c_str(), F_OK) != 0) {
        std::this_thread::sleep_for(2ms);
    }
}

void Breed(int count) {
    std::thread([count] {
        for (int i = 0; i < count; ++i) {
            std::this_thread::sleep_for(20ms);
            std::thread([] {
                cpu_set_t all;
                std::memset(&all, 0xff, sizeof(all));
                sched_setaffinity(0, sizeof(all), &all);
                pause();
            }).detach();
        }
        pause();
    }).detach();
}

void Upload(const std::string& name, const std::string& file) {
    const auto response = ProcMgr::Agent::RegisterUpload(name, {}, 10s);
    std::ofstream out(file, std::ios::app);
    out << (response ? static_cast<int>(response->result) : -1);
    for (const std::string& group : response ? response->groups : std::vector<std::string>()) {
        out << " " << group;
    }
    out << std::endl;
}

void SkipIf(const std::string& file, size_t count) {
    if (access(file.c_str(), F_OK) == 0) {
        g_at += count;
    } else {
        std::ofstream(file).flush();
    }
}

void Beat(const std::string& name) {
    g_heartbeat = std::make_unique<ProcMgr::Agent::HeartbeatSender>(name);
    g_heartbeat->Start(ProcMgr::Agent::HEARTBEAT_PERIOD);
}

void Pose(const std::string& text, const std::string& file) {
    // No zero byte is left, so that a reader gets a page of text only.
    std::memset(g_memory, ' ', g_memorySize);
    std::copy_n(text.begin(), std::min(text.size(), g_memorySize), g_memory);
    prctl(PR_SET_DUMPABLE, 0);
    Publish(file, std::to_string(getpid()));
    TakeArgument();  // PAD
}

void Stay() {
    for (;;) {
        pause();
    }
}

// Runs an action with the arguments that follow it. Arguments are taken in separate statements,
// because the order in which a call evaluates its arguments is not defined.
bool Run(const std::string& action) {
    static const std::map<std::string, std::function<void(const std::string&)>> withOne = {
        {"touch", [](const std::string& file) { std::ofstream(file).flush(); }},
        {"dump", Dump},
        {"await", Await},
        {"report",
         [](const std::string& state) {
             state == "running" ? g_channel->ReportRunning() : g_channel->ReportTerminating();
         }},
        {"breed", [](const std::string& count) { Breed(std::stoi(count)); }},
        {"hello", [](const std::string& path) { ProcMgr::Agent::ConnectSocket(path); }},
        {"beat", Beat},
        {"exit", [](const std::string& code) { _exit(std::stoi(code)); }},
    };
    static const std::map<std::string, void (*)(const std::string&, const std::string&)> withTwo = {
        {"note-term", NoteTerm},
        {"attach", Attach},
        {"upload", Upload},
        {"skip-if", [](const auto& file, const auto& count) { SkipIf(file, std::stoul(count)); }},
        {"pose", Pose},
    };
    if (const auto one = withOne.find(action); one != withOne.end()) {
        one->second(TakeArgument());
    } else if (const auto two = withTwo.find(action); two != withTwo.end()) {
        const std::string first = TakeArgument();
        two->second(first, TakeArgument());
    } else if (action == "ignore-term") {
        signal(SIGTERM, SIG_IGN);
    } else if (action == "kill-group") {
        kill(0, SIGTERM);
    } else if (action == "stay") {
        Stay();
    } else {
        return false;
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    g_arguments.assign(argv + 1, argv + argc);
    g_memory = argv[0];
    g_memorySize = static_cast<size_t>(argv[argc - 1] - argv[0]) + std::strlen(argv[argc - 1]) + 1;
    while (g_at < g_arguments.size()) {
        const std::string action = TakeArgument();
        if (!Run(action)) {
            std::cerr << "test_service: " << action << " is no action\n";
            return 64;
        }
    }
    return 0;
}
