// SPDX-License-Identifier: MIT
// src/state/usb_monitor.h: what lies on the USB disk.
#pragma once

#include <string>

// Total size in bytes of the files under `path`, 0 when it cannot be opened. Links are followed, but no
// folder is entered twice. Any thread.
long long GetFolderSize(const std::string &path);
