// SPDX-License-Identifier: MIT
#include "source_folder.h"

#include "records/remote_crc.h"
#include "records/remote_records.h"

#include <QCryptographicHash>
#include <asio/co_spawn.hpp>
#include <asio/use_awaitable.hpp>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>
#include <system_error>

namespace server
{

namespace
{

namespace fs = std::filesystem;

constexpr std::size_t kReadSize = 256 * 1024;
constexpr std::size_t kDigestDigits = 16;

bool BoardsTake(const std::string &name)
{
    const auto isControl = [](char character) {
        return static_cast<unsigned char>(character) < ' ' || character == '\x7F';
    };
    // Boards read a backslash as a slash.
    return name.size() < wire::kRemoteNameSize && name.find('\\') == std::string::npos &&
           std::none_of(name.begin(), name.end(), isControl);
}

} // namespace

SourceReader::SourceReader(const SourceFile &file) : fd_(open(file.path.c_str(), O_RDONLY | O_CLOEXEC))
{
    if (!fd_.Valid())
        throw std::system_error(errno, std::system_category(), file.path);
}

std::string SourceReader::Read(std::uint64_t offset, std::size_t size) const
{
    std::string data(size, '\0');
    std::size_t got = 0;
    while (got < size) {
        const ssize_t count =
            pread(fd_.Get(), data.data() + got, size - got, static_cast<off_t>(offset + got));
        if (count == -1 && errno == EINTR)
            continue;
        if (count == -1)
            throw std::system_error(errno, std::system_category(), "reading a file of the folder");
        if (count == 0)
            break;
        got += static_cast<std::size_t>(count);
    }
    data.resize(got);
    return data;
}

SourceFolder::SourceFolder(const std::string &folder)
{
    for (const fs::directory_entry &entry : fs::recursive_directory_iterator(folder)) {
        if (!entry.is_regular_file())
            continue;
        const std::string name = entry.path().lexically_relative(folder).generic_string();
        // Boards make and remove these files themselves.
        if (name.find(wire::kTableSuffix) != std::string::npos)
            continue;
        if (!BoardsTake(name))
            throw std::runtime_error("boards cannot take the name \"" + name + "\"");
        files_[name] = {.path = entry.path(), .size = entry.file_size()};
    }
    if (files_.empty())
        throw std::runtime_error("there are no files in " + folder);
}

std::uint64_t SourceFolder::TotalSize() const
{
    std::uint64_t total = 0;
    for (const auto &[name, file] : files_)
        total += file.size;
    return total;
}

FileFacts SourceFolder::Compute(const std::string &name, std::uint64_t length)
{
    const auto known = known_.find({name, length});
    if (known != known_.end())
        return known->second;
    const SourceReader reader(files_.at(name));
    QCryptographicHash digest(QCryptographicHash::Md5);
    FileFacts facts{.digest = "", .crc = wire::kCrcStart};
    for (std::uint64_t offset = 0; offset < length;) {
        const std::string data =
            reader.Read(offset,
                        static_cast<std::size_t>(std::min<std::uint64_t>(kReadSize, length - offset)));
        if (data.empty())
            break; // shorter than it was: the board's digest will differ
        digest.addData(QByteArrayView(data.data(), static_cast<qsizetype>(data.size())));
        facts.crc = wire::AdvanceCrc(facts.crc, wire::BytesAt(data.data(), data.size()));
        offset += data.size();
    }
    facts.digest = digest.result().toHex().toStdString().substr(0, kDigestDigits);
    known_[{name, length}] = facts;
    return facts;
}

asio::awaitable<FileFacts> SourceFolder::Facts(std::string name, std::uint64_t length)
{
    const auto compute = [this, &name, length]() -> asio::awaitable<FileFacts> {
        co_return Compute(name, length);
    };
    co_return co_await asio::co_spawn(worker_.get_executor(), compute, asio::use_awaitable);
}

} // namespace server
