// The lines between pmctl and the console as they are sent, each one JSON object with a newline.
// Pure functions for any thread.
#pragma once

#include <cstdint>
#include <string>

#include "console/console_protocol.h"

namespace ProcMgr::Console {

std::string FormatRequest(const Request& request);

// The lines of an answer. The request is with the daemon:
std::string SentLine();

// What has become known of one application.
struct News {
    std::string name = {};
    std::string type = {};  // the name of the report, or of what stands for one
    uint32_t result = 0;    // of the report
    uint32_t pid = 0;       // 0: no process
    std::string text = {};  // for people
    // Whether this is the outcome of the request for this application, and whether it is the wanted
    // one.
    bool isFinal = false;
    bool isOk = false;
};
std::string NewsLine(const News& news);

// The last line. `code` is one of Code, and `error` is for people.
std::string DoneLine();
std::string DoneLine(const std::string& code, const std::string& error);

}  // namespace ProcMgr::Console
