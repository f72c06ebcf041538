// SPDX-License-Identifier: MIT
#include "remote/folder_entries.h"

#include "common/unique_fd.h"

#include <QDir>
#include <QFileInfo>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <iterator>
#include <memory>
#include <optional>
#include <set>

namespace
{

struct CloseFolder {
    void operator()(DIR *folder) const { closedir(folder); }
};

// The names that are not hidden.
std::set<std::string> ReadNames(const std::string &folder)
{
    std::set<std::string> names;
    const std::unique_ptr<DIR, CloseFolder> open(opendir(folder.c_str()));
    while (const dirent *const entry = open ? readdir(open.get()) : nullptr) {
        if (entry->d_name[0] != '.')
            names.insert(entry->d_name);
    }
    return names;
}

// A path of the folder that QDir can open whatever the folder's name is; it holds while the descriptor is
// open.
QString OpenPath(const ledboard::UniqueFd &folder)
{
    return QStringLiteral("/proc/self/fd/%1").arg(folder.Get());
}

// Nothing for what QDir's own filter leaves out.
std::optional<FolderEntry> EntryOf(const std::string &folder, const std::string &name)
{
    const std::string path = folder + name;
    struct stat status = {};
    if (lstat(path.c_str(), &status) == -1)
        return std::nullopt;
    const bool isLink = S_ISLNK(status.st_mode);
    if (isLink ? stat(path.c_str(), &status) == -1 : !S_ISREG(status.st_mode) && !S_ISDIR(status.st_mode))
        return std::nullopt;
    return FolderEntry{.name = name, .isFolder = S_ISDIR(status.st_mode), .isLink = isLink};
}

// QDir's order by type, reversed.
bool ComesBefore(const FolderEntry &left, const FolderEntry &right)
{
    const QString leftName = QString::fromUtf8(left.name.data(), static_cast<qsizetype>(left.name.size()));
    const QString rightName = QString::fromUtf8(right.name.data(), static_cast<qsizetype>(right.name.size()));
    const int byType = QFileInfo(leftName).suffix().compare(QFileInfo(rightName).suffix());
    return byType != 0 ? byType > 0 : leftName.compare(rightName) > 0;
}

} // namespace

std::vector<FolderEntry> FolderEntries(const std::string &folder)
{
    const ledboard::UniqueFd fd(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!fd.Valid())
        return {};
    std::set<std::string> names = ReadNames(folder);
    std::vector<FolderEntry> listed;
    const QDir dir(OpenPath(fd));
    for (const QFileInfo &info : dir.entryInfoList(QDir::NoFilter, QDir::Type | QDir::Reversed)) {
        const std::string name = QFile::encodeName(info.fileName()).toStdString();
        if (names.erase(name) == 0) // hidden, or QDir's name for an entry whose own name is another one
            continue;
        listed.push_back({.name = name, .isFolder = info.isDir(), .isLink = info.isSymLink()});
    }
    std::vector<FolderEntry> unlisted;
    for (const std::string &name : names) {
        if (const std::optional<FolderEntry> entry = EntryOf(folder, name))
            unlisted.push_back(*entry);
    }
    std::sort(unlisted.begin(), unlisted.end(), ComesBefore);
    std::vector<FolderEntry> entries;
    std::merge(listed.begin(), listed.end(), unlisted.begin(), unlisted.end(), std::back_inserter(entries),
               ComesBefore);
    return entries;
}
