// The file system of the board: that of this machine, or a tree that is not mounted at "/". Paths
// are those of the board; a symbolic link of the tree leads to a place in the tree. Only metadata
// is read, no file is opened.
#pragma once

#include <sys/stat.h>

#include <string>
#include <vector>

namespace ProcMgr::Pmctl {

class Image {
public:
    // `root`: the directory that is "/" on the board; empty for this machine.
    explicit Image(std::string root = {});

    // Whether the image is this machine.
    bool IsHere() const { return root_.empty(); }

    // The path on this machine, for messages and for files that need no look at links. A path that
    // lies in the tree already, or is relative, stays as it is.
    std::string HostPath(const std::string& path) const;

    struct Step {
        std::string path;  // on the board
        struct stat status {};
    };
    struct Walk {
        int error = 0;              // errno; 0: the file has been reached
        std::string failed;         // the path on the board whose look-up has failed
        std::vector<Step> folders;  // every directory on the way, those behind links too
        Step file;                  // what the path leads to, when there is no error
        std::string hostPath;       // of the file
    };
    // Follows an absolute path of the board step by step.
    Walk Follow(const std::string& path) const;

private:
    std::string root_;
};

}  // namespace ProcMgr::Pmctl
