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
//   say FD TEXT          writes the line TEXT to the descriptor
//   kill-group           sends SIGTERM to its process group
//   stay                 waits for a signal
//   exit CODE            ends
#include <fcntl.h>
#include <grp.h>
#include <sched.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fstream>
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
size_t g_at = 0;  // the next argument
std::unique_ptr<OwnerChannel> g_channel;
std::unique_ptr<ProcMgr::Agent::HeartbeatSender> g_heartbeat;
std::string g_noteLine;
int g_noteFd = -1;

std::string TakeArgument() {
    return g_arguments.at(g_at++);
}

// Lines "KEY=VALUE": uid, gid, groups, fds (numbers with a blank each), the lines SigBlk and SigIgn
// of the process's status, arg for each argument, then the environment. The file appears whole.
void Dump() {
    const std::string path = TakeArgument();
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
    std::ofstream(path + ".part") << out.str() << std::flush;
    rename((path + ".part").c_str(), path.c_str());
}

void OnTerm(int /*signal*/) {
    [[maybe_unused]] const ssize_t size = write(g_noteFd, g_noteLine.data(), g_noteLine.size());
    _exit(0);
}

void NoteTerm() {
    g_noteFd = open(TakeArgument().c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    g_noteLine = TakeArgument() + "\n";
    signal(SIGTERM, OnTerm);
}

void Attach() {
    g_channel = std::make_unique<OwnerChannel>(TakeArgument());
    g_channel->OnAppState([file = TakeArgument()](const auto& infos) {
        std::ofstream out(file, std::ios::app);
        for (const auto& info : infos) {
            out << info.appName << " " << ProcMgr::GetReportAppStateTypeStr(info.reportType)
                << std::endl;
        }
    });
    g_channel->Attach(30s);
}

void Await() {
    const std::string file = TakeArgument();
    while (access(file.c_str(), F_OK) != 0) {
        std::this_thread::sleep_for(2ms);
    }
}

void Breed() {
    std::thread([count = std::stoi(TakeArgument())] {
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

void Upload() {
    const auto response = ProcMgr::Agent::RegisterUpload(TakeArgument(), {}, 10s);
    std::ofstream out(TakeArgument(), std::ios::app);
    out << (response ? static_cast<int>(response->result) : -1);
    for (const std::string& group : response ? response->groups : std::vector<std::string>()) {
        out << " " << group;
    }
    out << std::endl;
}

void SkipIf() {
    const std::string file = TakeArgument();
    const size_t count = std::stoul(TakeArgument());
    if (access(file.c_str(), F_OK) == 0) {
        g_at += count;
    } else {
        std::ofstream(file).flush();
    }
}

void Beat() {
    g_heartbeat = std::make_unique<ProcMgr::Agent::HeartbeatSender>(TakeArgument());
    g_heartbeat->Start(ProcMgr::Agent::HEARTBEAT_PERIOD);
}

void Say() {
    const int fd = std::stoi(TakeArgument());
    const std::string line = TakeArgument() + "\n";
    [[maybe_unused]] const ssize_t size = write(fd, line.data(), line.size());
}

// Each action takes the arguments that follow it.
const std::map<std::string, void (*)()> ACTIONS = {
    {"touch", [] { std::ofstream(TakeArgument()).flush(); }},
    {"dump", Dump},
    {"await", Await},
    {"ignore-term", [] { signal(SIGTERM, SIG_IGN); }},
    {"note-term", NoteTerm},
    {"attach", Attach},
    {"report",
     [] {
         TakeArgument() == "running" ? g_channel->ReportRunning() : g_channel->ReportTerminating();
     }},
    {"breed", Breed},
    {"upload", Upload},
    {"hello", [] { ProcMgr::Agent::ConnectSocket(TakeArgument()); }},
    {"skip-if", SkipIf},
    {"beat", Beat},
    {"say", Say},
    {"kill-group", [] { kill(0, SIGTERM); }},
    {"stay",
     [] {
         for (;;) {
             pause();
         }
     }},
    {"exit", [] { _exit(std::stoi(TakeArgument())); }},
};

}  // namespace

int main(int argc, char** argv) {
    g_arguments.assign(argv + 1, argv + argc);
    while (g_at < g_arguments.size()) {
        ACTIONS.at(TakeArgument())();
    }
    return 0;
}
