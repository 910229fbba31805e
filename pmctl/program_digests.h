// The digests that the hash file of the board has for its programs, taken and compared as the
// daemon does it before a start.
#pragma once

#include <map>
#include <string>

#include "app/digest.h"
#include "pmctl/image.h"

namespace ProcMgr::Pmctl {

class ProgramDigests {
public:
    // Reads the hash file. `hasOwners`: a file that others could have written protects nothing, as
    // in the daemon. The image must outlive the object.
    ProgramDigests(const Image& image, bool hasOwners);

    // Why the hash file cannot be read; empty when it has been read, or there is none.
    const std::string& GetError() const { return error_; }

    enum class Verdict {
        PASSED,  // also a program that is not protected
        WRONG,
        UNKNOWN,  // this user cannot read the program
    };
    // `path`: of the manifest. `walk`: where it leads to, a regular file. Waits for sha256sum, 60 s
    // at most.
    Verdict Check(const std::string& path, const Image::Walk& walk);

private:
    void ReadLines(const std::string& text);

    std::string error_;
    std::map<std::string, std::string> expected_;  // by file name
    App::DigestRunner runner_;
};

}  // namespace ProcMgr::Pmctl
