// SPDX-License-Identifier: MIT
#include "remote/program_list.h"

#include "base/diag.h"
#include "records/remote_records.h"
#include "remote/folder_entries.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <set>
#include <utility>

namespace
{

constexpr char kUnit[] = "src/device_context.cpp";

// Folders that were entered, by device and inode: a link to a folder above must not make a walk endless.
class Visited
{
public:
    bool Enter(const std::string &folder) // false if it was entered before or is not there
    {
        struct stat status = {};
        return stat(folder.c_str(), &status) == 0 && entered_.emplace(status.st_dev, status.st_ino).second;
    }

private:
    std::set<std::pair<dev_t, ino_t>> entered_;
};

void AddFile(std::string name, ProgramList *list)
{
    const std::size_t mark = name.find(wire::kTableSuffix);
    if (mark == std::string::npos) {
        list->s_programFileList.push_back(std::move(name));
        return;
    }
    list->s_lastRecvFile = name.erase(mark, std::strlen(wire::kTableSuffix));
    Diag(kUnit, "LogIn", __LINE__, "unfinished file: %s", list->s_lastRecvFile.c_str());
}

void ListFolder(const std::string &folder, std::size_t prefixSize, Visited *visited, ProgramList *list)
{
    if (!visited->Enter(folder))
        return;
    for (const FolderEntry &entry : FolderEntries(folder)) {
        const std::string path = folder + entry.name;
        if (entry.isFolder)
            ListFolder(path + "/", prefixSize, visited, list);
        else
            AddFile(path.substr(prefixSize), list);
    }
}

void RemoveEmptyFoldersIn(const std::string &folder, Visited *visited)
{
    if (!visited->Enter(folder))
        return;
    for (const FolderEntry &entry : FolderEntries(folder)) {
        if (!entry.isFolder || entry.isLink)
            continue;
        RemoveEmptyFoldersIn(folder + entry.name + "/", visited);
        rmdir((folder + entry.name).c_str()); // fails, as it should, while something is in it
    }
}

} // namespace

ProgramList ListPrograms(const std::string &programDir)
{
    ProgramList list;
    Visited visited;
    ListFolder(programDir, programDir.size(), &visited, &list);
    for (const std::string &name : list.s_programFileList) {
        if (IsVideo(name))
            list.s_videoFileList.push_back(name);
    }
    return list;
}

bool IsVideo(const std::string &name)
{
    return name.find(".mp4") != std::string::npos;
}

void RemoveEmptyFolders(const std::string &programDir)
{
    Visited visited;
    RemoveEmptyFoldersIn(programDir, &visited);
}
