// SPDX-License-Identifier: MIT
#include "modem/sms_store.h"

#include "base/diag.h"
#include "base/files.h"
#include "base/paths.h"
#include "common/unique_fd.h"
#include "records/modem_records.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace
{

constexpr char kUnit[] = "src/third_generation.cpp";
constexpr std::size_t kMaxKept = 255; // no SIM holds more, so a message that comes again is among them
constexpr long kTail = 65536;         // bytes read at start
constexpr off_t kMaxFile = 1 << 20;   // a larger file loses its older half: the flash is small

// The last `count` bytes of the file or fewer, beginning with a whole line. Empty without a file.
std::string ReadTail(const FilePointer &file, long count)
{
    if (!file || std::fseek(file.get(), 0, SEEK_END) != 0)
        return {};
    const long size = std::ftell(file.get());
    const long from = std::max(0L, size - count);
    std::string text(static_cast<std::size_t>(std::max(0L, size - from)), '\0');
    std::fseek(file.get(), from, SEEK_SET);
    text.resize(std::fread(text.data(), 1, text.size(), file.get()));
    if (from > 0)
        text.erase(0, text.find('\n') == std::string::npos ? text.size() : text.find('\n') + 1);
    return text;
}

// False for a file whose last line was cut, as by a power cut.
bool EndsInLine(int fd, off_t size)
{
    char last = '\n';
    return size == 0 || (pread(fd, &last, 1, size - 1) == 1 && last == '\n');
}

void DropOlderHalf()
{
    const std::string newer = ReadTail(OpenFile(paths::kSms, "rb"), kMaxFile / 2);
    if (!ReplaceFile(paths::kSms, newer))
        DiagErrno(kUnit, __func__, __LINE__, "can't shorten %s: ", paths::kSms);
}

} // namespace

void SmsStore::Load()
{
    const std::string text = ReadTail(OpenFile(paths::kSms, "rb"), kTail);
    for (std::size_t begin = 0; begin < text.size();) {
        const std::size_t end = std::min(text.find('\n', begin), text.size());
        if (auto message = SmsFromJson(text.substr(begin, end - begin)))
            kept_.push_back(std::move(*message));
        begin = end + 1;
    }
    while (kept_.size() > kMaxKept)
        kept_.pop_front();
}

bool SmsStore::Append(const SmsMessage &message)
{
    mkdir(paths::kPlexaData, 0700);
    const ledboard::UniqueFd file(open(paths::kSms, O_RDWR | O_APPEND | O_CREAT | O_CLOEXEC, 0644));
    struct stat status = {};
    if (!file.Valid() || fstat(file.Get(), &status) == -1)
        return false;
    const std::string line = (EndsInLine(file.Get(), status.st_size) ? "" : "\n") + SmsToJson(message) + "\n";
    const ssize_t written = write(file.Get(), line.data(), line.size());
    const bool whole = written == static_cast<ssize_t>(line.size());
    if (!whole && written >= 0)
        errno = ENOSPC; // a short write sets no errno
    if (whole && SyncFile(paths::kSms)) {
        if (status.st_size > kMaxFile)
            DropOlderHalf();
        return true;
    }
    // The message will be appended again: no part of it may stay.
    const int error = errno;
    [[maybe_unused]] const int cut = ftruncate(file.Get(), status.st_size);
    errno = error;
    return false;
}

bool SmsStore::IsKept(int index, const SmsMessage &message) const
{
    const auto there = undeleted_.find(index);
    return (there != undeleted_.end() && there->second == message) ||
           (message.time != 0 && std::ranges::find(kept_, message) != kept_.end());
}

bool SmsStore::Keep(int index, const SmsMessage &message)
{
    if (IsKept(index, message))
        return true;
    if (!Append(message)) {
        if (!failing_)
            DiagErrno(kUnit, __func__, __LINE__,
                      "an SMS stays in the modem, %s can't be written: ", paths::kSms);
        failing_ = true;
        return false;
    }
    failing_ = false;
    Diag(kUnit, __func__, __LINE__, "SMS %s", SmsToJson(message).c_str());
    undeleted_[index] = message;
    kept_.push_back(message);
    if (kept_.size() > kMaxKept)
        kept_.pop_front();
    return true;
}

void SmsStore::Deleted(int index)
{
    undeleted_.erase(index);
}

std::vector<SmsMessage> SmsStore::Last() const
{
    const std::size_t count = std::min(kept_.size(), wire::kMostModemSms);
    return {kept_.end() - static_cast<std::ptrdiff_t>(count), kept_.end()};
}
