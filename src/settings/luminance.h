// SPDX-License-Identifier: MIT
// src/settings/luminance.h: the largest luminance at which the panel still refreshes 100 times a second
// (docs/protocols.md, "Files"). Pure computing, except that ReadPanel reads a file; any thread.
//
// A driver chip shows a grey level as pulses: longer ones are brighter and take longer, so that the panel
// refreshes more slowly. The letters: t minimum pulse width, w width, h rows of a scan, s scan divisor (0
// counts as 1), n bit planes, m width of the first plane, g gap, k multiplier, f index of the clock. Integers
// wrap at 32 bits; floats have single precision and are truncated to integers. A divisor that wrapped to 0
// counts as 1.
#pragma once

#include <cstdint>
#include <cstdio>
#include <optional>

constexpr unsigned kMaxLuminance = 1000;

// Refresh rate in hertz, one formula for each family of driver chips. MBI504X: 0 for an index past its table
// of clocks.
int NormalCalRefreshRate(int t, int w, int h, int s, int n, int m, int g);
int HLL5ScanCalRefreshRate(int t, int w, int h, int s, int n, int m);
int VirtualCalRefreshRate(int t, int w, int h, int s, int n, int m);
int W2HCalRefreshRate(int t, int w, int h, int s, int n, int m, int k);
int MBI504XCalRefreshRate(int f, int s);

// The parameters of the settings file that describe the panel.
struct PanelParameters {
    std::uint32_t size = 0, s = 0, pulseIndex = 0, h = 0, n = 0;
    std::uint32_t pulseBank = 0, k = 0, f = 0, widthSelect = 0, g = 0;
};

// Reads them from a settings file opened at its start, until ten records are found. Nothing if the file holds
// fewer; a parameter that comes twice counts twice.
std::optional<PanelParameters> ReadPanel(std::FILE *file);

// Whether the panel refreshes at least 100 times a second. The family is bits 16 to 23 of the FPGA's version.
bool RefreshPasses(unsigned family, unsigned t, unsigned w, unsigned h, unsigned s, unsigned n, unsigned m,
                   unsigned g, unsigned k, unsigned f);
// The same without a family: m counts in units of t, integers are unsigned, floats have double precision, and
// a rate of 99.99995 is enough.
bool RefreshPasses(unsigned t, unsigned w, unsigned h, unsigned s, unsigned n, unsigned m);

// 1 to kMaxLuminance; 0 if not even 1 passes.
unsigned LargestLuminance(const PanelParameters &panel, unsigned family);
