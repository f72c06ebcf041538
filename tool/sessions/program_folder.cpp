// SPDX-License-Identifier: MIT
#include "sessions/program_folder.h"

#include "common/pc/text.h"
#include "common/pc/verb_error.h"
#include "records/upload_records.h"

#include <fmt/format.h>

#include <algorithm>
#include <filesystem>

namespace ledboard
{

namespace
{

namespace fs = std::filesystem;

constexpr const char *kVideoMark = ".mp4"; // anywhere in the name

bool IsControl(char character)
{
    const auto byte = static_cast<unsigned char>(character);
    return byte < 0x20 || byte == 0x7f;
}

ProgramFile ReadEntry(const fs::directory_entry &entry, const fs::path &folder)
{
    const std::string name = entry.path().lexically_relative(folder).native();
    const std::string problem = UploadNameProblem(name);
    if (!problem.empty())
        throw VerbError(ExitStatus::kUsage, fmt::format("'{}' {}", ForTerminal(name), problem));
    if (!entry.is_regular_file())
        throw VerbError(ExitStatus::kUsage,
                        fmt::format("'{}' is neither a file nor a folder", ForTerminal(name)));
    return {name, entry.path().native(), entry.file_size()};
}

} // namespace

bool ProgramFile::IsVideo() const
{
    // In a sub-folder boards do not look for videos.
    return name.find('/') == std::string::npos && name.find(kVideoMark) != std::string::npos;
}

std::string UploadNameProblem(const std::string &name)
{
    if (name.size() > wire::kUploadNameLimit)
        return fmt::format("is longer than the {} bytes of a name on a board", wire::kUploadNameLimit);
    if (std::any_of(name.begin(), name.end(), IsControl))
        return "has a control character in its name, which a board refuses";
    std::string parts = "/" + name + "/";
    // Boards read a backslash as a slash.
    std::replace(parts.begin(), parts.end(), '\\', '/');
    if (parts.find("/../") != std::string::npos)
        return "leads out of its folder on a board";
    const std::size_t slash = name.find('/');
    if (slash != std::string::npos && name.find(kVideoMark) < slash)
        return "is in a folder that a board would take for a video";
    return "";
}

std::vector<ProgramFile> ReadProgramFolder(const std::string &folder)
{
    std::vector<ProgramFile> files;
    try {
        for (const fs::directory_entry &entry :
             fs::recursive_directory_iterator(folder, fs::directory_options::follow_directory_symlink)) {
            if (!entry.is_directory())
                files.push_back(ReadEntry(entry, folder));
        }
    } catch (const fs::filesystem_error &error) {
        throw VerbError(ExitStatus::kUsage,
                        fmt::format("cannot read '{}': {}", ForTerminal(error.path1().native()),
                                    error.code().message()));
    }
    if (files.empty())
        throw VerbError(ExitStatus::kUsage, fmt::format("there is no file in '{}'", ForTerminal(folder)));
    std::sort(files.begin(), files.end(),
              [](const ProgramFile &a, const ProgramFile &b) { return a.name < b.name; });
    return files;
}

std::uint64_t TotalSize(const std::vector<ProgramFile> &files)
{
    std::uint64_t total = 0;
    for (const ProgramFile &file : files)
        total += file.size;
    return total;
}

} // namespace ledboard
