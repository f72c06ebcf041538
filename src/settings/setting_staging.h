// SPDX-License-Identifier: MIT
// src/settings/setting_staging.h: the staged file "setting.ss.bak", into which a client sends a settings file
// piece by piece before it saves it as the working copy. All clients share it. The setting service holds its
// lock in all of it.
#pragma once

#include "base/files.h"
#include "records/wire_types.h"
#include "settings/setting_lock.h"

class SettingStaging
{
public:
    // Each closes the staged file first and then opens it: Begin as an empty file, Reopen for changes from
    // its start, if there is one. False if it cannot be opened.
    bool Begin(const SettingLock &lock);
    bool Reopen(const SettingLock &lock);

    // Stores a piece at the file's position. True also if no file is open. False: it could not be stored, and
    // the file is closed as by Close.
    bool Append(const SettingLock &lock, wire::Bytes piece);

    // False if what was sent could not be stored: then the staged file is removed (logged), so that nobody
    // saves a part of it.
    bool Close(const SettingLock &lock);

    // Makes the closed staged file the working copy.
    void MoveToWorkingCopy(const SettingLock &lock);

    // Writes the closed staged file over the working copy, which is created if it does not exist.
    struct CopyResult {
        bool opened; // the working copy; it may have changed
        bool stored; // false: a write failed (logged)
    };
    CopyResult CopyToWorkingCopy(const SettingLock &lock);

private:
    FilePointer stagingFile;
};
