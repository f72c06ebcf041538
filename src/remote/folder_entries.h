// SPDX-License-Identifier: MIT
// src/remote/folder_entries.h: the entries of one folder in the order of the listings. Any thread.
#pragma once

#include <string>
#include <vector>

struct FolderEntry {
    std::string name; // bytes
    bool isFolder;    // or a link to one
    bool isLink;
};

// By file type, the last type first, as QDir lists and sorts them; hidden entries are left out, so are links
// to nothing and what is neither file, folder nor link. Names that QDir cannot represent are there, too: they
// are sorted as if U+FFFD stood in place of each invalid byte. `folder` is a path that ends in "/". Empty if
// it cannot be read.
std::vector<FolderEntry> FolderEntries(const std::string &folder);
