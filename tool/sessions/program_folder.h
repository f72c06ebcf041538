// SPDX-License-Identifier: MIT
// tool/sessions/program_folder.h: a display program on this PC: its files, and whether a board accepts their
// names.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace ledboard
{

struct ProgramFile {
    std::string name; // relative to the folder, bytes unchanged
    std::string path; // on this PC
    std::uint64_t size;

    bool IsVideo() const; // a board that has a file of this name keeps it
};

// All files below `folder`, ordered by name. Throws VerbError(kUsage) if there is no file, if an entry is
// neither a file nor a folder, or if a board would refuse, truncate or misread a name.
std::vector<ProgramFile> ReadProgramFolder(const std::string &folder);

std::uint64_t TotalSize(const std::vector<ProgramFile> &files);

// Why a board would not accept the name unchanged; empty if it would.
std::string UploadNameProblem(const std::string &name);

} // namespace ledboard
