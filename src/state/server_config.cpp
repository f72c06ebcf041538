// SPDX-License-Identifier: MIT
#include "state/server_config.h"

#include "base/diag.h"
#include "base/files.h"
#include "base/paths.h"
#include "base/shell.h"
#include "state/addressing_mode.h"

#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace
{

// The units that log lines of the reader and of the writer name.
constexpr char kReadUnit[] = "src/network.c";
constexpr char kWriteUnit[] = "src/search_services.c";

constexpr char kKey[] = "port=";
constexpr char kModemAlways[] = "modem=always";
constexpr int kLineLength = 256;

std::atomic<bool> s_modemAlways{false};

void ReadConfig(std::FILE *file)
{
    bool modemAlways = false;
    char line[kLineLength + 1];
    while (std::fgets(line, sizeof line, file) != nullptr) {
        line[std::strcspn(line, "\r\n")] = '\0';
        modemAlways = modemAlways || std::strcmp(line, kModemAlways) == 0;
        if (std::strncmp(line, kKey, sizeof kKey - 1) != 0)
            continue;
        const long port = std::strtol(line + sizeof kKey - 1, nullptr, 10);
        if (port >= kMinCustomPort && port <= kMaxCustomPort)
            SetCustomPort(static_cast<int>(port));
    }
    s_modemAlways = modemAlways;
}

bool CreateServerConfig()
{
    if (!IsFolder(paths::kPlexaData) && mkdir(paths::kPlexaData, 0700) == -1) {
        Diag(kReadUnit, "GetUserConfigInfo", __LINE__, "make /home/root/plexa_data dir fail!");
        return false;
    }
    const FilePointer file = OpenFile(paths::kServerConfig, "w");
    return file && std::fputs("port=0\n", file.get()) >= 0 && std::fflush(file.get()) == 0;
}

} // namespace

bool GetUserConfigInfo()
{
    const FilePointer file = OpenFile(paths::kServerConfig, "r");
    if (!file)
        return errno == ENOENT && CreateServerConfig();
    ReadConfig(file.get());
    return true;
}

bool ModemDialsAlways()
{
    return s_modemAlways;
}

void WriteCustomPortToFile(int port)
{
    {
        const FilePointer from = OpenFile(paths::kServerConfig, "r");
        const FilePointer to = from ? OpenFile(paths::kServerConfigTemporary, "w") : nullptr;
        if (!to)
            return;
        bool written = true;
        char part[256];
        bool atLineStart = true;
        bool isPortLine = false;
        while (std::fgets(part, sizeof part, from.get()) != nullptr) {
            if (atLineStart) {
                isPortLine = std::strncmp(part, kKey, sizeof kKey - 1) == 0;
                if (isPortLine)
                    written &= std::fprintf(to.get(), "port=%d\n", port) > 0;
            }
            if (!isPortLine)
                written &= std::fputs(part, to.get()) >= 0;
            atLineStart = std::strchr(part, '\n') != nullptr;
        }
        written &= std::fflush(to.get()) == 0 && fsync(fileno(to.get())) == 0;
        if (!written) { // the command then leaves the file as it is
            DiagErrno(kWriteUnit, __func__, __LINE__, "write of the custom port: ");
            unlink(paths::kServerConfigTemporary);
        }
    }
    RunShell(std::string("cp ") + paths::kServerConfigTemporary + " " + paths::kServerConfig);
    SyncFile(paths::kServerConfig);
}
