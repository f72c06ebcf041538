// SPDX-License-Identifier: MIT
#include "files.h"

#include "sockets.h"

#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

namespace
{

void SyncFolderOf(const std::string &path)
{
    const std::size_t slash = path.rfind('/');
    const std::string folder = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    const UniqueFd fd(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
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

bool ReplaceFile(const std::string &path, const std::string &content)
{
    const std::string neighbour = path + ".new";
    FilePointer file = OpenFile(neighbour, "wb");
    if (!file)
        return false;
    bool stored = std::fwrite(content.data(), 1, content.size(), file.get()) == content.size() &&
                  std::fflush(file.get()) == 0 && fsync(fileno(file.get())) == 0;
    int error = errno;
    if (std::fclose(file.release()) != 0 && stored) {
        stored = false;
        error = errno;
    }
    if (stored && std::rename(neighbour.c_str(), path.c_str()) == 0) {
        SyncFolderOf(path);
        return true;
    }
    error = stored ? errno : error;
    unlink(neighbour.c_str());
    errno = error;
    return false;
}
