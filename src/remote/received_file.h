// SPDX-License-Identifier: MIT
// src/remote/received_file.h: the program file that the remote server is sending, and the reception table
// beside it. Main thread only. Paths are inside the program folder; the caller has checked them.
//
// The table (wire::kTableSuffix) has one byte for each chunk that is stored, so that an interrupted transfer
// can be resumed. Both files are written without a buffer of this process: when the daemon dies, the table
// never counts a chunk that the file does not have.
#pragma once

#include "base/files.h"
#include "records/wire_types.h"

#include <optional>
#include <string>

struct DeviceContext;

class ReceivedFile
{
public:
    // Works on `file` and `crc32` of the record, which outlives this object.
    explicit ReceivedFile(DeviceContext *record) : record_(record) {}
    ~ReceivedFile() { Close(); }
    ReceivedFile(const ReceivedFile &) = delete;
    ReceivedFile &operator=(const ReceivedFile &) = delete;

    // Closes what is open, makes the folder, opens file and table with the `mode` of fopen, and starts the
    // CRC. True if both are open; otherwise neither is.
    bool Open(const std::string &path, const char *mode);

    // Appends a chunk and its mark and advances the CRC. False if nothing is open or not all of it could be
    // written; the file is then as before.
    bool Store(wire::Bytes chunk);

    void Close();    // file and table; the table stays, for a resumption
    void Complete(); // as Close, and removes the table that was open

private:
    DeviceContext *record_;
    // The names that begin with s_ are given, here and in TableReader.
    FilePointer s_bakFile;     // the table
    std::string s_bakFilename; // its path
};

// Reads a reception table in pieces, one at each call.
class TableReader
{
public:
    // Reads the next piece into `room`. 0 at the end, where the table is closed, so that the next call begins
    // anew; so does a call with another path. Nothing if the table cannot be opened; it is then removed.
    std::optional<std::size_t> Read(const std::string &path, wire::MutableBytes room);
    void Close();

private:
    FilePointer s_readBakFile;
    std::string path_;
};
