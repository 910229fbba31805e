#include "pmctl/who_may_connect.h"

#include <grp.h>
#include <sys/stat.h>

namespace ProcMgr::Pmctl {

std::string WhoMayConnect(const std::string& path) {
    struct stat info {};
    if (stat(path.c_str(), &info) != 0 || (info.st_mode & S_IWGRP) == 0) {
        return "become root";
    }
    const group* entry = getgrgid(info.st_gid);
    const std::string name = entry == nullptr ? std::to_string(info.st_gid) : entry->gr_name;
    return "become root or a member of group " + name;
}

}  // namespace ProcMgr::Pmctl
