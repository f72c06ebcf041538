// SPDX-License-Identifier: MIT
// src/settings/luminance.h: the largest luminance at which the panel still refreshes 100 times a second
// (docs/protocols.md, "Files"). Pure computing but for ReadPanel; any thread.
//
// The letters: t minimum pulse width, w width, h rows of a scan, s scan divisor (0 counts as 1), n bit
// planes, m width of the first plane, g gap, k multiplier, f index of the clock. Arithmetic wraps at 32 bits;
// floats are single precision and are cut off towards zero. A divisor that wrapped to 0 counts as 1.
#pragma once

#include <cstdint>
#include <cstdio>
#include <optional>

constexpr unsigned kMaxLuminance = 1000;

// Refresh rate in hertz by the driver chips' family. MBI504X: 0 for an index beyond its table of clocks.
int NormalCalRefreshRate(int t, int w, int h, int s, int n, int m, int g);
int HLL5ScanCalRefreshRate(int t, int w, int h, int s, int n, int m);
int VirtualCalRefreshRate(int t, int w, int h, int s, int n, int m);
int W2HCalRefreshRate(int t, int w, int h, int s, int n, int m, int k);
int MBI504XCalRefreshRate(int f, int s);

// What the settings file says about the panel.
struct PanelParameters {
    std::uint32_t size = 0, s = 0, pulseIndex = 0, h = 0, n = 0;
    std::uint32_t pulseBank = 0, k = 0, f = 0, widthSelect = 0, g = 0;
};

// From a settings file opened at its start; nothing when it holds fewer than ten of the parameters, a
// repeated one counted again.
std::optional<PanelParameters> ReadPanel(std::FILE *file);

// The family is bits 16 to 23 of the FPGA's version.
bool RefreshPasses(unsigned family, unsigned t, unsigned w, unsigned h, unsigned s, unsigned n, unsigned m,
                   unsigned g, unsigned k, unsigned f);
// The family-less form: m counts in units of t, unsigned and double precision, passes from 99.99995 on.
bool RefreshPasses(unsigned t, unsigned w, unsigned h, unsigned s, unsigned n, unsigned m);

// 1 to 1000, 0 when not even 1 passes.
unsigned LargestLuminance(const PanelParameters &panel, unsigned family);
