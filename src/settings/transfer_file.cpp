// SPDX-License-Identifier: MIT
#include "settings/transfer_file.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

bool TransferFile::Open(const std::string &path)
{
    path_ = path;
    stored_ = 0;
    replacement_.emplace(path);
    if (replacement_->Stream() != nullptr)
        return true;
    const int error = errno;
    replacement_.reset();
    errno = error;
    return false;
}

bool TransferFile::Append(wire::Bytes piece)
{
    // Written without the stream's buffer, which does not say how much of a piece a full disk has taken.
    const int fd = fileno(replacement_->Stream());
    while (!piece.empty()) {
        const ssize_t written = write(fd, piece.data(), piece.size());
        if (written > 0) {
            stored_ += static_cast<std::size_t>(written);
            piece = piece.subspan(static_cast<std::size_t>(written));
        } else if (written == 0 || (errno == ENOSPC && !GiveUpOldFile(piece.size())) ||
                   (errno != ENOSPC && errno != EINTR)) {
            return false;
        }
    }
    return true;
}

bool TransferFile::GiveUpOldFile(std::size_t pending)
{
    struct stat old = {};
    const bool helps = stat(path_.c_str(), &old) == 0 &&
                       static_cast<std::size_t>(old.st_size) > stored_ + pending &&
                       unlink(path_.c_str()) == 0;
    if (!helps)
        errno = ENOSPC;
    return helps;
}

bool TransferFile::Commit()
{
    const bool stored = replacement_->Commit();
    const int error = errno;
    replacement_.reset();
    errno = error;
    return stored;
}

void TransferFile::Drop()
{
    replacement_.reset();
}
