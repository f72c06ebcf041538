// SPDX-License-Identifier: MIT
// src/settings/transfer_file.h: a file that arrives in pieces and takes the place of an old one. An object
// belongs to one thread at a time.
//
// The pieces go to a neighbour file, so that a transfer that breaks off leaves the old file whole. On a disk
// that cannot hold both, the old file is given up, but only while the new one is still the smaller of the
// two: on a disk that is simply full the old one stays.
#pragma once

#include "base/files.h"
#include "records/wire_types.h"

#include <cstddef>
#include <optional>
#include <string>

class TransferFile
{
public:
    bool Open(const std::string &path); // begins an empty file; false with errno
    bool IsOpen() const { return replacement_.has_value(); }
    bool Append(wire::Bytes piece); // to an open file; false with errno: a part of it may be stored
    bool Commit();                  // closes it, synced and in place; false with errno: the old one stays
    void Drop();                    // closes it; the old one stays

private:
    // For a new file that still lacks `pending` bytes of a piece. False with errno: the old file stays.
    bool GiveUpOldFile(std::size_t pending);

    std::string path_;
    std::optional<FileReplacement> replacement_;
    std::size_t stored_ = 0; // bytes so far
};
