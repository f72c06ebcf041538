// SPDX-License-Identifier: MIT
#include "base/files.h"

#include "base/sockets.h"
#include "common/unique_fd.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace
{

// A new name survives a power cut only when the folder that holds it is on the disk too.
void SyncFolderOf(const std::string &path)
{
    const std::size_t slash = path.rfind('/');
    const std::string folder = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    const ledboard::UniqueFd fd(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (fd.Valid())
        fsync(fd.Get());
}

} // namespace

FilePointer OpenFile(const std::string &path, const char *mode)
{
    return FilePointer(std::fopen(path.c_str(), (std::string(mode) + "e").c_str()));
}

std::optional<std::string> ReadFileStart(const std::string &path, std::size_t limit)
{
    const FilePointer file = OpenFile(path, "rb");
    if (!file)
        return std::nullopt;
    std::string content(limit, '\0');
    content.resize(std::fread(content.data(), 1, limit, file.get()));
    return content;
}

bool IsFolder(const std::string &path)
{
    DIR *const folder = opendir(path.c_str());
    if (folder == nullptr)
        return false;
    closedir(folder);
    return true;
}

void MakeFolders(const std::string &path)
{
    constexpr mode_t kMode = 0777;
    std::size_t end = 0;
    while (end != std::string::npos) {
        end = path.find('/', end + 1);
        mkdir(path.substr(0, end).c_str(), kMode);
    }
}

FileReplacement::FileReplacement(std::string path)
    : path_(std::move(path)), file_(OpenFile(path_ + ".new", "wb"))
{
}

FileReplacement::~FileReplacement()
{
    if (file_)
        unlink((path_ + ".new").c_str());
}

bool FileReplacement::Commit()
{
    // ferror also remembers a write that failed before Commit and that nobody looked at.
    bool stored =
        std::fflush(file_.get()) == 0 && std::ferror(file_.get()) == 0 && fsync(fileno(file_.get())) == 0;
    int error = errno;
    // Some file systems report a failed write only when the file is closed.
    if (std::fclose(file_.release()) != 0 && stored) {
        stored = false;
        error = errno;
    }
    const std::string neighbour = path_ + ".new";
    if (stored && std::rename(neighbour.c_str(), path_.c_str()) == 0) {
        SyncFolderOf(path_);
        return true;
    }
    error = stored ? errno : error;
    unlink(neighbour.c_str());
    errno = error;
    return false;
}

bool SyncFile(const std::string &path)
{
    const ledboard::UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd.Valid() || fsync(fd.Get()) == -1)
        return false;
    SyncFolderOf(path);
    return true;
}

bool ReplaceFile(const std::string &path, const std::string &content)
{
    FileReplacement replacement(path);
    if (replacement.Stream() == nullptr)
        return false;
    std::fwrite(content.data(), 1, content.size(), replacement.Stream());
    return replacement.Commit();
}
