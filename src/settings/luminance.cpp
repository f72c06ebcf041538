// SPDX-License-Identifier: MIT
#include "settings/luminance.h"

#include "records/setting_records.h"
#include "state/setting_file.h"

#include <array>

namespace
{

constexpr std::array<std::uint32_t, 16> min_pluse_width = {32, 40,  48,  56,  64,  72,  80,  88,
                                                           96, 104, 120, 128, 160, 200, 248, 320};
constexpr std::array<float, 16> kMbiClock = {31.25F, 25.0F, 20.8F, 17.86F,  15.625F, 13.9F, 12.5F, 11.36F,
                                             10.4F,  9.6F,  8.3F,  7.8125F, 6.25F,   5.0F,  4.0F,  3.125F};

constexpr std::uint32_t kBankStep = 6; // entries of min_pluse_width that bank 1 skips
constexpr int kParameterCount = 10;
constexpr unsigned kMinRefresh = 100;     // hertz
constexpr std::uint32_t kOverhead = 1000; // of a plane
constexpr float kNanoseconds = 1e9F;      // of a second

enum Family : unsigned {
    kHll5Scan = 2,
    kW2H = 6,
    kUnlimited = 7,
    kVirtualPixel = 8,
    kMbi504X = 9,
};

std::uint32_t Unsigned(int value)
{
    return static_cast<std::uint32_t>(value);
}

// Signed division without undefined cases: a quotient that does not fit wraps, and a divisor that wrapped to
// 0 counts as 1.
std::int32_t Divide(std::uint32_t dividend, std::uint32_t divisor)
{
    if (divisor == 0)
        divisor = 1;
    const std::int64_t quotient =
        static_cast<std::int64_t>(static_cast<std::int32_t>(dividend)) / static_cast<std::int32_t>(divisor);
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(quotient));
}

// The time of all planes: for each the line time or its width, whichever is longer, and the overhead. `Word`
// decides whether the two are compared signed or unsigned.
template <typename Word>
std::uint32_t PlaneSum(Word line, std::uint32_t width, std::uint32_t planes, std::uint32_t overhead)
{
    constexpr std::uint32_t kBits = 32;
    std::uint32_t sum = 0;
    for (std::uint32_t plane = 0; plane < planes; ++plane) {
        const bool wider = line < static_cast<Word>(width);
        const std::uint32_t taken = (wider ? width : static_cast<std::uint32_t>(line)) + overhead;
        // Doubled 32 times the width is 0 and stays 0, so that all further planes take the same time. Without
        // this a file with 4 billion planes would occupy the daemon for minutes.
        if (plane == kBits)
            return sum + taken * (planes - plane);
        sum += taken;
        width *= 2;
    }
    return sum;
}

int RefreshRate(std::int32_t line, int m, int n, std::uint32_t overhead, int s, float share)
{
    const float scan = s == 0 ? 1.0F : static_cast<float>(s);
    const std::uint32_t sum = n < 1 ? 0 : PlaneSum<std::int32_t>(line, Unsigned(m), Unsigned(n), overhead);
    if (sum == 0)
        return static_cast<int>(kNanoseconds / scan * share);
    return static_cast<int>(kNanoseconds / static_cast<float>(static_cast<std::int32_t>(sum)) / scan * share);
}

std::uint32_t DivisorOf(int s)
{
    return s == 0 ? 1 : Unsigned(s);
}

// The pulse width that the panel's index and bank select; nothing past the table.
std::optional<std::uint32_t> PulseWidth(const PanelParameters &panel)
{
    const std::uint64_t index =
        static_cast<std::uint64_t>(panel.pulseIndex) + (panel.pulseBank == 1 ? kBankStep : 0);
    if (index >= min_pluse_width.size())
        return std::nullopt;
    return min_pluse_width[static_cast<std::size_t>(index)];
}

bool Store(PanelParameters *panel, std::uint32_t id, std::uint32_t value)
{
    switch (id) {
    case wire::kIdScreenSize:
        panel->size = value;
        return true;
    case wire::kIdScan:
        panel->s = value;
        return true;
    case wire::kIdPulseIndex:
        panel->pulseIndex = value;
        return true;
    case wire::kIdHeight:
        panel->h = value & 0xFF;
        return true;
    case wire::kIdGrayBits:
        panel->n = value + 1;
        return true;
    case wire::kIdPulseBank:
        panel->pulseBank = value;
        return true;
    case wire::kIdW2HFactor:
        panel->k = value;
        return true;
    case wire::kIdMbiClock:
        panel->f = value;
        return true;
    case wire::kIdWidthSelect:
        panel->widthSelect = value;
        return true;
    case wire::kIdGap:
        panel->g = value;
        return true;
    default:
        return false;
    }
}

// The largest step that passes, 0 if none does. It assumes that with a step all smaller ones pass. Where the
// formulas wrap that is wrong, and the order of the tests decides the result: keep it.
template <typename Test> unsigned SearchLargest(const Test &passes)
{
    unsigned low = 1;
    unsigned high = kMaxLuminance;
    unsigned middle = kMaxLuminance / 2;
    for (;;) {
        if (passes(middle)) {
            if (middle == kMaxLuminance)
                return kMaxLuminance;
            low = middle + 1;
            if (low == high)
                return passes(high) ? high : middle;
        } else {
            if (middle == 1)
                return 0;
            high = middle - 1;
            if (high == low)
                return passes(high) ? high : high - 1;
        }
        if (low > high)
            return high;
        middle = (low + high) / 2;
    }
}

} // namespace

int NormalCalRefreshRate(int t, int w, int h, int s, int n, int m, int g)
{
    const std::int32_t line = Divide(Unsigned(t) * Unsigned(w) * Unsigned(h), DivisorOf(s));
    return RefreshRate(line, m, n, (Unsigned(g) + 125) * 8, s, 1.0F);
}

int HLL5ScanCalRefreshRate(int t, int w, int h, int s, int n, int m)
{
    const std::int32_t line = Divide(Unsigned(t) * 24 * Unsigned(w) * Unsigned(h), 20 * DivisorOf(s));
    return RefreshRate(line, m, n, kOverhead, s, 1.0F);
}

int VirtualCalRefreshRate(int t, int w, int h, int s, int n, int m)
{
    const std::int32_t line = Divide(Unsigned(t) * Unsigned(w) * Unsigned(h), 2 * DivisorOf(s));
    return RefreshRate(line, m, n, kOverhead, s, 0.25F);
}

int W2HCalRefreshRate(int t, int w, int h, int s, int n, int m, int k)
{
    const std::int32_t line = Divide(Unsigned(k) * Unsigned(t) * Unsigned(w) * Unsigned(h), DivisorOf(s));
    return RefreshRate(line, m, n, kOverhead, s, 1.0F);
}

int MBI504XCalRefreshRate(int f, int s)
{
    if (f < 0 || Unsigned(f) >= kMbiClock.size())
        return 0;
    const float scan = s == 0 ? 1.0F : static_cast<float>(s);
    return static_cast<int>(kMbiClock[Unsigned(f)] * 1e6F * (1.0F / 1024.0F) / scan);
}

std::optional<PanelParameters> ReadPanel(std::FILE *file)
{
    PanelParameters panel;
    int stored = 0;
    while (const auto record = ReadSetting(file)) {
        if (Store(&panel, record->id, record->value) && ++stored == kParameterCount)
            return panel;
    }
    return std::nullopt;
}

bool RefreshPasses(unsigned family, unsigned t, unsigned w, unsigned h, unsigned s, unsigned n, unsigned m,
                   unsigned g, unsigned k, unsigned f)
{
    const auto I = [](unsigned value) { return static_cast<int>(value); };
    int refresh = 0;
    switch (family) {
    case kUnlimited:
        return true;
    case kHll5Scan:
        refresh = HLL5ScanCalRefreshRate(I(t), I(w), I(h), I(s), I(n), I(m));
        break;
    case kW2H:
        refresh = W2HCalRefreshRate(I(t), I(w), I(h), I(s), I(n), I(m), I(k));
        break;
    case kVirtualPixel:
        refresh = VirtualCalRefreshRate(I(t), I(w), I(h), I(s), I(n), I(m));
        break;
    case kMbi504X:
        refresh = MBI504XCalRefreshRate(I(f), I(s));
        break;
    default:
        refresh = NormalCalRefreshRate(I(t), I(w), I(h), I(s), I(n), I(m), I(g));
        break;
    }
    // QUIRK negative-passes: a sum that wrapped gives a negative rate, which counts as a huge one; the test
    // would be expected to fail.
    return static_cast<unsigned>(refresh) >= kMinRefresh;
}

bool RefreshPasses(unsigned t, unsigned w, unsigned h, unsigned s, unsigned n, unsigned m)
{
    constexpr double kPasses = 99.99995;
    const unsigned divisor = s == 0 ? 1 : s;
    const std::uint32_t sum = PlaneSum<std::uint32_t>(h * t * w / divisor, t * m, n, kOverhead);
    return sum == 0 || !(1e9 / sum / divisor < kPasses);
}

unsigned LargestLuminance(const PanelParameters &panel, unsigned family)
{
    const std::optional<std::uint32_t> pulse = PulseWidth(panel);
    const std::uint32_t w = panel.widthSelect == 1 ? panel.size >> 16 : panel.size & 0xFFFF;
    const std::uint32_t t = pulse.value_or(0);
    std::fprintf(stderr, "t, w, h, s, n : %d, %d, %d, %d, %d.\n", static_cast<int>(t), static_cast<int>(w),
                 static_cast<int>(panel.h), static_cast<int>(panel.s), static_cast<int>(panel.n));
    // An index past the table fails the formulas that use the pulse, and only them.
    if (!pulse && family != kUnlimited && family != kMbi504X)
        return 0;
    return SearchLargest([&](unsigned step) {
        return RefreshPasses(family, t, w, panel.h, panel.s, panel.n, t * step, panel.g, panel.k, panel.f);
    });
}
