// SPDX-License-Identifier: MIT
// tool/sessions/program_folder.h: a display program on this PC: its files, and whether a board would take
// them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace ledboard
{

struct ProgramFile {
    std::string name; // relative to the folder, bytes as they are
    std::string path; // on this PC
    std::uint64_t size;

    bool IsVideo() const; // one that a board keeps by its name
};

// All files below `folder`, ordered by name. Throws VerbError(kUsage) when there is none, when something in
// it is no file, and for every name that a board would refuse, cut or take for something else.
std::vector<ProgramFile> ReadProgramFolder(const std::string &folder);

std::uint64_t TotalSize(const std::vector<ProgramFile> &files);

// Why a board would not take the name as it is; empty when it would.
std::string UploadNameProblem(const std::string &name);

} // namespace ledboard
