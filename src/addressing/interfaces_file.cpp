// SPDX-License-Identifier: MIT
#include "addressing/interfaces_file.h"

namespace
{

constexpr std::string_view kEth0 = "iface eth0 inet ";
constexpr std::string_view kStatic = "static";
constexpr std::string_view kPreUp =
    R"(        pre-up /bin/grep -v -e "ip=[0-9]\+\.[0-9]\+\.[0-9]\+\.[0-9]\+" /proc/cmdline > /dev/null)"
    "\n";

// The lines after the eth0 line: address, netmask and network of a static configuration, then one more of any
// configuration (gateway or pre-up).
constexpr int kStaticLines = 3;
constexpr int kLastLine = 1;

} // namespace

InterfacesRewriter InterfacesRewriter::ForDhcp()
{
    return {false, std::string(kPreUp)};
}

InterfacesRewriter InterfacesRewriter::ForFixed(const FixedAddress &fixed)
{
    return {true, "        address " + fixed.address + "\n        netmask " + fixed.netmask +
                      "\n        network " + fixed.network + "\n        gateway " + fixed.gateway + "\n"};
}

bool InterfacesRewriter::Take(std::string_view line, std::string *out)
{
    // QUIRK blind-drop: the lines after an eth0 line are dropped by number, whatever they say; only those of
    // the old configuration would be expected to go.
    if (drop_ > 0) {
        --drop_;
        return false;
    }
    if (!line.starts_with(kEth0)) {
        out->append(line);
        return false;
    }
    const bool wasStatic = line.substr(kEth0.size()).starts_with(kStatic);
    drop_ = kLastLine + (wasStatic ? kStaticLines : 0);
    if (wasStatic == fixed_) {
        out->append(line);
        if (!line.ends_with('\n'))
            out->push_back('\n');
    } else {
        out->append(kEth0).append(fixed_ ? "static\n" : "dhcp\n");
    }
    out->append(configuration_);
    return true;
}

bool ReadInterfacesLine(std::FILE *file, std::string *line)
{
    line->clear();
    while (line->size() < kMaxInterfacesLine) {
        const int character = std::getc(file);
        if (character == EOF)
            break;
        line->push_back(static_cast<char>(character));
        if (character == '\n')
            break;
    }
    return !line->empty();
}
