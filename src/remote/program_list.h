// SPDX-License-Identifier: MIT
// src/remote/program_list.h: what is in a program folder and all folders below it. Main thread only. Folders
// are paths that end in "/"; names are bytes, relative to the folder.
#pragma once

#include <string>
#include <vector>

// The names that begin with s_ are given.
struct ProgramList {
    std::vector<std::string> s_programFileList; // by file type, the last type first
    std::vector<std::string> s_videoFileList;   // those of them that are videos
    std::string s_lastRecvFile; // a file whose reception table was found, so that it is unfinished; or empty
};

// Logs the unfinished file. Hidden files are left out.
ProgramList ListPrograms(const std::string &programDir);

bool IsVideo(const std::string &name); // it contains ".mp4"

// Removes the folders that are left empty, the deepest first, but not `programDir` itself.
void RemoveEmptyFolders(const std::string &programDir);
