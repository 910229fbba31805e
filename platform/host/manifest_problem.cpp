#include "platform/host/manifest_problem.h"

#include "platform/host/diagnostics.h"

namespace PlatformHost {

std::string ManifestProblem::Text() const {
    std::string text = file;
    if (place != Place::FILE) {
        text += ':' + std::to_string(line);
    }
    text += ": ";
    if (place == Place::KEY || place == Place::NEAR_KEY) {
        text += place == Place::NEAR_KEY ? "near key " : "key ";
        text += Quoted(key) + ": ";
    }
    return text + what;
}

}  // namespace PlatformHost
