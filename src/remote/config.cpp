// SPDX-License-Identifier: MIT
#include "remote/config.h"

#include "common/text_field.h"

#include <cstdlib>
#include <cstring>

namespace
{

constexpr int kMaxLine = 300;

// Stores at most `limit` bytes of the value if the line begins with `key`. False if it does not.
bool TakeValue(const std::string &line, const char *key, std::size_t limit, std::string *value)
{
    if (line.rfind(key, 0) != 0)
        return false;
    *value = line.substr(std::strlen(key), limit);
    if (!value->empty() && value->back() == '\n')
        value->pop_back();
    return true;
}

} // namespace

RemoteConfig ReadRemoteConfig(std::FILE *file)
{
    RemoteConfig config;
    std::string port;
    char line[kMaxLine + 1];
    // QUIRK config-stops: the first line without a known key ends the reading; it would be expected to be
    // skipped.
    while (std::fgets(line, sizeof line, file) != nullptr &&
           (TakeValue(line, "ip=", 20, &config.ip) || TakeValue(line, "domain=", 255, &config.domain) ||
            TakeValue(line, "port=", 10, &port) || TakeValue(line, "username=", 20, &config.username))) {
    }
    config.port = static_cast<int>(std::strtol(port.c_str(), nullptr, 10));
    return config;
}

std::string RemoteConfigText(const wire::AddrParam &server)
{
    // QUIRK port-16-bit: the port is written as a signed 16-bit number, 70000 as 4464 and 40000 as -25536;
    // the number itself would be expected. Only its low 16 bits are ever connected to.
    const auto port = static_cast<short>(server.port);
    return (server.domainFlag == 1 ? "domain=" : "ip=") + std::string(ledboard::FieldText(server.addr)) +
           "\nport=" + std::to_string(port) +
           "\nusername=" + std::string(ledboard::FieldText(server.username)) + "\n";
}
