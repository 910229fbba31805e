// test_service ACTION...
//
// A service that does what its arguments say, one after the other:
//   touch FILE           makes FILE
//   dump FILE            writes down what the process is and has: see Dump
//   await FILE           waits until FILE is there
//   ignore-term          stays at SIGTERM
//   note-term FILE NAME  at SIGTERM adds the line NAME to FILE and exits with 0
//   attach NAME FILE     attaches to the pipe of the service NAME; the state reports that come on
//                        it are added to FILE, one line "APP TYPE" each
//   report STATE         reports "running" or "terminating" over it
//   breed COUNT          starts so many threads, one each 20 ms; each lets itself run on every core
//   upload NAME FILE     registers as NAME for all groups, adds the line "RESULT GROUP..." to FILE
//   hello SOCKET         connects to it once
//   skip-if FILE COUNT   leaves out the next COUNT arguments if FILE is there, else makes it
//   beat NAME            sends heartbeats as NAME
//   kill-group           sends SIGTERM to its process group
//   pose TEXT FILE PAD   shows TEXT as its command line, unreadable to its own user; then writes
//   its
//                        pid to FILE; PAD is as long as a page at least
//   stay                 waits for a signal
//   exit CODE            ends
#include <dirent.h>
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
char* g_memory = nullptr;  // the arguments as the kernel shows them
size_t g_memorySize = 0;
std::unique_ptr<OwnerChannel> g_channel;
std::unique_ptr<ProcMgr::Agent::HeartbeatSender> g_heartbeat;
std::string g_noteLine;
int g_noteFd = -1;

std::string TakeArgument(size_t& at) {
    if (at >= g_arguments.size()) {
        std::cerr << "test_service: an argument is missing\n";
        _exit(64);
    }
    return g_arguments[at++];
}

std::set<int> OpenDescriptors() {
    std::set<int> fds;
    DIR* directory = opendir("/proc/self/fd");
    while (const dirent* entry = readdir(directory)) {
        const auto fd = static_cast<int>(std::strtol(entry->d_name, nullptr, 10));
        if (entry->d_name[0] != '.' && fd != dirfd(directory)) {
            fds.insert(fd);
        }
    }
    closedir(directory);
    return fds;
}

// Lines "KEY=VALUE": uid, gid, groups, fds (numbers with a blank each), the lines SigBlk and SigIgn
// of the process's status, arg for each argument, then the environment. The file appears whole.
void Dump(const std::string& path) {
    std::ofstream out(path + ".part");
    out << "uid=" << getuid() << "\ngid=" << getgid() << "\ngroups=";
    std::vector<gid_t> groups(static_cast<size_t>(getgroups(0, nullptr)));
    const int count = getgroups(static_cast<int>(groups.size()), groups.data());
    const auto end = groups.begin() + count;
    for (const gid_t group : std::set<gid_t>(groups.begin(), end)) {
        out << group << " ";
    }
    out << "\nfds=";
    std::set<int> fds = OpenDescriptors();
    for (const int fd : fds) {
        char target[256]{};
        const std::string link = "/proc/self/fd/" + std::to_string(fd);
        if (readlink(link.c_str(), target, sizeof(target) - 1) < 0 ||
            std::strstr(target, path.c_str()) == nullptr) {
            out << fd << " ";
        }
    }
    std::ifstream status("/proc/self/status");
    out << "\n";
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
    out.close();
    rename((path + ".part").c_str(), path.c_str());
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

void SkipIf(const std::string& file, size_t count, size_t& at) {
    if (access(file.c_str(), F_OK) == 0) {
        at += count;
    } else {
        std::ofstream(file).flush();
    }
}

void Beat(const std::string& name) {
    g_heartbeat = std::make_unique<ProcMgr::Agent::HeartbeatSender>(name);
    g_heartbeat->Start(ProcMgr::Agent::HEARTBEAT_PERIOD);
}

void Pose(const std::string& text, const std::string& file) {
    // No zero byte is left, so that a reader gets a page of text and nothing else.
    std::memset(g_memory, ' ', g_memorySize);
    std::copy_n(text.begin(), std::min(text.size(), g_memorySize), g_memory);
    prctl(PR_SET_DUMPABLE, 0);
    std::ofstream(file + ".part") << getpid();
    rename((file + ".part").c_str(), file.c_str());
}

void Stay() {
    for (;;) {
        pause();
    }
}

using Action = std::function<void(size_t& at)>;

const std::map<std::string, Action>& Actions() {
    static const std::map<std::string, Action> actions = {
        {"touch", [](size_t& at) { std::ofstream(TakeArgument(at)).flush(); }},
        {"dump", [](size_t& at) { Dump(TakeArgument(at)); }},
        {"await", [](size_t& at) { Await(TakeArgument(at)); }},
        {"ignore-term", [](size_t& /*at*/) { signal(SIGTERM, SIG_IGN); }},
        {"note-term",
         [](size_t& at) {
             const std::string file = TakeArgument(at);
             NoteTerm(file, TakeArgument(at));
         }},
        {"attach",
         [](size_t& at) {
             const std::string name = TakeArgument(at);
             Attach(name, TakeArgument(at));
         }},
        {"report",
         [](size_t& at) {
             TakeArgument(at) == "running" ? g_channel->ReportRunning()
                                           : g_channel->ReportTerminating();
         }},
        {"breed", [](size_t& at) { Breed(std::stoi(TakeArgument(at))); }},
        {"upload",
         [](size_t& at) {
             const std::string name = TakeArgument(at);
             Upload(name, TakeArgument(at));
         }},
        {"hello", [](size_t& at) { ProcMgr::Agent::ConnectSocket(TakeArgument(at)); }},
        {"skip-if",
         [](size_t& at) {
             const std::string file = TakeArgument(at);
             const size_t count = std::stoul(TakeArgument(at));
             SkipIf(file, count, at);
         }},
        {"beat", [](size_t& at) { Beat(TakeArgument(at)); }},
        {"kill-group", [](size_t& /*at*/) { kill(0, SIGTERM); }},
        {"pose",
         [](size_t& at) {
             const std::string text = TakeArgument(at);
             Pose(text, TakeArgument(at));
             TakeArgument(at);
         }},
        {"stay", [](size_t& /*at*/) { Stay(); }},
        {"exit", [](size_t& at) { _exit(std::stoi(TakeArgument(at))); }},
    };
    return actions;
}

}  // namespace

int main(int argc, char** argv) {
    g_arguments.assign(argv + 1, argv + argc);
    g_memory = argv[0];
    g_memorySize = static_cast<size_t>(argv[argc - 1] - argv[0]) + std::strlen(argv[argc - 1]) + 1;
    for (size_t at = 0; at < g_arguments.size();) {
        const auto action = Actions().find(TakeArgument(at));
        if (action == Actions().end()) {
            std::cerr << "test_service: " << g_arguments[at - 1] << " is no action\n";
            return 64;
        }
        action->second(at);
    }
    return 0;
}
