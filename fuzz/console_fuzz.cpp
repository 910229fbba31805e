// Fuzzes the request line of pm-console. What is accepted has to stand its own rules, and to be the
// same request again when it is written and read once more.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "console/console_lines.h"
#include "console/console_records.h"
#include "console/console_request.h"

namespace {

using namespace ProcMgr::Console;

void Require(bool isTrue, const char* what) {
    if (!isTrue) {
        std::fprintf(stderr, "not so: %s\n", what);
        std::abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const ParsedRequest parsed = ParseRequest({reinterpret_cast<const char*>(data), size});
    Require(parsed.request.has_value() == parsed.error.empty(), "a request or an error");
    if (!parsed.request) {
        return 0;
    }
    const Request& request = *parsed.request;
    Require(request.names.size() <= NAMES_MAX, "as many names as are allowed");
    Require(request.names.empty() == HasFile(request.command), "names or a file");
    Require(request.timeout.count() > 0 && request.timeout <= TIMEOUT_MAX, "a time-out in range");
    std::string line = FormatRequest(request);
    line.pop_back();
    Require(line.find('\n') == std::string::npos, "one line");
    Require(ParseRequest(line).request == request, "the same request when it is read again");
    const auto records = MakeRecords(request);
    Require(!records || (records->size() <= NAMES_MAX + 1 &&
                         records->back().type == ProcMgr::Message::QUERY_APP_STATE),
            "one record for each name, and a query");
    return 0;
}
