// SPDX-License-Identifier: MIT
// src/state/usb_monitor.h: how much the files on the USB disk take.
#pragma once

#include <string>

// Total size in bytes of the files under `path`, 0 if it cannot be opened. Links are followed, but no folder
// is entered twice. Any thread.
long long GetFolderSize(const std::string &path);
