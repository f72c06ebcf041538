// SPDX-License-Identifier: MIT
#include "state/usb_monitor.h"

#include "base/diag.h"

#include <dirent.h>
#include <sys/stat.h>

#include <deque>
#include <memory>
#include <set>
#include <utility>

namespace
{

constexpr char kUnit[] = "src/usb_monitor.c";

using FolderIdentity = std::pair<dev_t, ino_t>;

struct CloseFolder {
    void operator()(DIR *folder) const { closedir(folder); }
};

bool IsDots(const char *name)
{
    return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}

} // namespace

long long GetFolderSize(const std::string &path)
{
    long long size = 0;
    std::deque<std::string> waiting{path};
    std::set<FolderIdentity> entered; // a link may lead back up the tree
    for (; !waiting.empty(); waiting.pop_front()) {
        const std::string &current = waiting.front();
        const std::unique_ptr<DIR, CloseFolder> folder(opendir(current.c_str()));
        struct stat self = {};
        if (!folder || fstat(dirfd(folder.get()), &self) == -1 ||
            !entered.emplace(self.st_dev, self.st_ino).second)
            continue;
        while (const dirent *const entry = readdir(folder.get())) {
            if (IsDots(entry->d_name))
                continue;
            const std::string name = current + "/" + entry->d_name;
            struct stat status = {};
            if (stat(name.c_str(), &status) == -1)
                DiagErrno(kUnit, __func__, __LINE__, "%s", name.c_str());
            else if (S_ISDIR(status.st_mode))
                waiting.push_back(name);
            else
                size += status.st_size;
        }
    }
    return size;
}
