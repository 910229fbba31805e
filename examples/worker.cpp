// worker [--name NAME] [--period SECONDS] [--fail-after SECONDS]
//
// A service that does not link the client library. It logs a line at its start and one each PERIOD
// seconds, if --period is given. With --fail-after it ends with status 1 after that time.
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>

#include "examples/service.h"

namespace {

using std::chrono::seconds;
using Clock = std::chrono::steady_clock;

constexpr seconds NEVER{24 * 3600};

struct Options {
    std::string name = "worker";
    seconds period = NEVER;
    seconds failAfter = NEVER;
};

bool ReadSeconds(std::string_view text, seconds& out) {
    uint32_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size() || number == 0) {
        return false;
    }
    out = std::min(seconds(number), NEVER);
    return true;
}

std::optional<Options> ReadOptions(int argc, char** argv) {
    Options options;
    for (int i = 1; i < argc; i += 2) {
        const std::string_view key = argv[i];
        const char* const value = i + 1 < argc ? argv[i + 1] : "";
        bool isGood = false;
        if (key == "--name") {
            options.name = value;
            isGood = !options.name.empty();
        } else if (key == "--period") {
            isGood = ReadSeconds(value, options.period);
        } else if (key == "--fail-after") {
            isGood = ReadSeconds(value, options.failAfter);
        }
        if (!isGood) {
            return std::nullopt;
        }
    }
    return options;
}

}  // namespace

int main(int argc, char** argv) {
    Example::TakeStopSignals();
    const std::optional<Options> options = ReadOptions(argc, argv);
    if (!options) {
        std::fprintf(stderr,
                     "usage: worker [--name NAME] [--period SECONDS] [--fail-after SECONDS]\n");
        return 2;
    }
    openlog(options->name.c_str(), LOG_PID, LOG_USER);
    const char* const greeting = std::getenv("GREETING");
    const char* const restarted = std::getenv("IS_RESTART");
    syslog(LOG_INFO, "works as uid %u, greeting '%s', restarted %s",
           static_cast<unsigned>(getuid()), greeting == nullptr ? "" : greeting,
           restarted == nullptr ? "?" : restarted);

    const Clock::time_point start = Clock::now();
    const Clock::time_point failure = start + options->failAfter;
    Clock::time_point nextLine = start + options->period;
    while (true) {
        const auto left = std::min(failure, nextLine) - Clock::now();
        const auto wait = std::chrono::ceil<std::chrono::milliseconds>(left);
        if (Example::WaitForStop(std::max(wait, std::chrono::milliseconds(0)))) {
            syslog(LOG_INFO, "ends");
            return 0;
        }
        if (Clock::now() >= failure) {
            syslog(LOG_ERR, "fails, as it was told to");
            return 1;
        }
        if (Clock::now() >= nextLine) {
            syslog(LOG_INFO, "still at work");
            nextLine += options->period;
        }
    }
}
