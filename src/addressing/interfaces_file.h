// SPDX-License-Identifier: MIT
// src/addressing/interfaces_file.h: rewrites the lines of /etc/network/interfaces for a fixed or a dynamic
// address. Computes only; the caller reads and writes the files.
//
// The file is processed line by line. A line ends with its newline or after kMaxInterfacesLine bytes; the
// rest of a longer one counts as the next line.
#pragma once

#include <cstdio>
#include <string>
#include <string_view>

constexpr std::size_t kMaxInterfacesLine = 256;

// The values of the four lines of a fixed address, dotted.
struct FixedAddress {
    std::string address;
    std::string netmask;
    std::string network;
    std::string gateway;
};

class InterfacesRewriter
{
public:
    static InterfacesRewriter ForDhcp();
    static InterfacesRewriter ForFixed(const FixedAddress &fixed);

    // Appends to `out` what the new file contains in place of `line`. True if the line configures eth0: `out`
    // then contains the new configuration.
    bool Take(std::string_view line, std::string *out);

private:
    InterfacesRewriter(bool fixed, std::string configuration)
        : fixed_(fixed), configuration_(std::move(configuration))
    {
    }

    bool fixed_;
    std::string configuration_; // written after the eth0 line
    int drop_ = 0;              // lines that are still to be dropped
};

// Reads one line. False at the end of the file.
bool ReadInterfacesLine(std::FILE *file, std::string *line);
