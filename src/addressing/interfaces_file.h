// SPDX-License-Identifier: MIT
// src/addressing/interfaces_file.h: how the interfaces file changes with the addressing. No file is touched
// here.
//
// The file is taken line by line. A line is what ends in a newline, at most kInterfacesLine bytes; the rest
// of a longer one counts as the next line.
#pragma once

#include <cstdio>
#include <string>
#include <string_view>

constexpr std::size_t kInterfacesLine = 256;

// The four lines of a fixed address, dotted.
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

    // Appends to `out` what stands in the new file for `line`. True at a line that configures eth0: the new
    // configuration is then in `out`.
    bool Take(std::string_view line, std::string *out);

private:
    InterfacesRewriter(bool fixed, std::string configuration)
        : fixed_(fixed), configuration_(std::move(configuration))
    {
    }

    bool fixed_;
    std::string configuration_; // the lines behind the eth0 line
    int drop_ = 0;              // lines of the old configuration still to come
};

// Reads one line. False at the end of the file.
bool ReadInterfacesLine(std::FILE *file, std::string *line);
