// What services print goes where their manifest says.
#include <algorithm>

#include "tests/e2e/e2e_fixture.h"

namespace {

class OutputOf : public E2e {
protected:
    // How often the process of a service has written this line to the system logger.
    size_t CountSaid(const std::string& service, const std::string& text) {
        const auto messages = Log().Messages();
        return static_cast<size_t>(
            std::count_if(messages.begin(), messages.end(), [&](const SyslogMessage& message) {
                return message.ident == service && message.text == text && message.pid > 1 &&
                       message.facility == LOG_DAEMON && message.level == LOG_INFO;
            }));
    }
};

TEST_F(OutputOf, ServicesAndApplications) {
    const std::string file = In("filed.log");
    BootWhole(
        Entry("talker", "say, 1, hello, say, 2, oops, note-term, /proc/self/fd/1, bye, stay",
              "uid: 1000, output: syslog") +
        Entry("filed", "say, 1, " + std::string(1500, 'x') + ", say, 2, two, stay",
              "output: {file: " + file + ", size: 4096}") +
        Entry("silent", "say, 1, unheard, touch, " + In("silent") + ", stay", "output: null") +
        Entry("astray", "say, 1, unseen, touch, " + In("astray") + ", stay",
              "output: /run/missing/astray.log") +
        Entry("whirl", "say, 1, turn, exit, 1", "restart: on-failure, output: syslog") +
        "applications:\n" +
        Entry("early", "say, 1, app, stay", "startup_priority: 0, output: syslog"));
    EXPECT_TRUE(WaitUntil([&] {
        return CountSaid("talker", "hello") == 1 && CountSaid("talker", "oops") == 1 &&
               CountSaid("early", "app") == 1 && CountSaid("whirl", "turn") == 6;
    }));
    EXPECT_TRUE(WaitForFile("silent") && WaitForFile("astray"));
    EXPECT_TRUE(
        WaitForLine("PROCMGR : the output of astray is not written to "
                    "/run/missing/astray.log: open failed, errno=2"));
    EXPECT_TRUE(WaitUntil([&] {
        return ReadFile(file) == std::string(1024, 'x') + "\n" + std::string(476, 'x') + "\ntwo\n";
    })) << ReadFile(file);
    EXPECT_EQ(Log().Count("unheard") + Log().Count("unseen"), 0U);
    ExpectOrderlyStop();
    EXPECT_EQ(CountSaid("talker", "bye"), 1U) << "what is written at the end";
    EndRun();
}

}  // namespace
