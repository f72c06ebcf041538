// SPDX-License-Identifier: MIT
// The video check of the upload service: which videos the board already has, and which it no longer needs.
#include "base/diag.h"
#include "base/shell.h"
#include "upload/work_thread.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <vector>

namespace
{

constexpr char kUnit[] = "src/work_thread.cpp";
constexpr int kVideoFoundLine = 2435;
constexpr int kVideoKeptLine = 2501;
constexpr char kVideoMark[] = ".mp4"; // anywhere in the name

struct CloseFolder {
    void operator()(DIR *folder) const { closedir(folder); }
};
using FolderPointer = std::unique_ptr<DIR, CloseFolder>;

// File names are bytes; a QString holds one byte per character.
QString NameOf(const char *bytes)
{
    return QString::fromLatin1(bytes);
}

bool IsFolderByBareName(const char *name)
{
    // QUIRK bare-name-stat: the entry is looked up in the working directory, not in its own folder, so that a
    // folder is recognised only if the working directory has one of the same name; the full path would be
    // expected.
    struct stat status = {};
    return stat(name, &status) == 0 && S_ISDIR(status.st_mode);
}

// Removes a file, or a folder with all that it holds. A file does not need a shell.
void RemoveEntry(const std::string &path)
{
    if (unlink(path.c_str()) == 0)
        return;
    const std::string remove = "rm -r " + ShellName(path);
    RunShell(remove + "; if [ $? == \"1\" ]; then " + remove + "; fi;");
}

} // namespace

void KWorkThread::CheckVideoRepeatStart()
{
    const std::string folder = ProgramFolder();
    const FolderPointer entries(opendir(folder.c_str()));
    if (!entries)
        return;
    videos.clear();
    kept.clear();
    std::vector<std::string> unwanted; // removed later: the folder must not change while it is read
    while (const dirent *const entry = readdir(entries.get())) {
        const char *const name = entry->d_name;
        if (std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0)
            continue;
        if (IsFolderByBareName(name) || std::strstr(name, kVideoMark) == nullptr)
            unwanted.emplace_back(name);
        else
            videos.append(NameOf(name));
    }
    for (const std::string &name : unwanted)
        RemoveEntry(std::string(folder).append("/").append(name));
    for (const QString &name : std::as_const(videos))
        Diag(kUnit, __func__, kVideoFoundLine, "%s", name.toLatin1().constData());
}

void KWorkThread::CheckVideoRepeat(const char *payload, int length)
{
    names.clear();
    int offset = 0;
    while (offset < length) {
        const auto room = static_cast<std::size_t>(length - offset);
        const std::string asked(payload + offset, strnlen(payload + offset, room));
        offset += static_cast<int>(asked.size()) + 1;
        const QString name = NameOf(asked.c_str());
        if (!videos.contains(name))
            continue;
        names.append(name);
        if (!kept.contains(name)) // a client that repeats its lists must not make this one grow
            kept.append(name);
        Diag(kUnit, __func__, kVideoKeptLine, "%s", asked.c_str());
    }
}

void KWorkThread::CheckVideoRepeatEnd()
{
    for (const QString &name : std::as_const(videos)) {
        if (!kept.contains(name))
            RemoveEntry(std::string(ProgramFolder()) + "/" + name.toLatin1().toStdString());
    }
}
