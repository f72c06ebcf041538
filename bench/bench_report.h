// SPDX-License-Identifier: MIT
// bench/bench_report.h: interleaved runs of a subject and its baseline, and the one table that a benchmark
// prints.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/types.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

namespace bench
{

using Samples = std::vector<double>;

inline double Median(Samples samples)
{
    std::sort(samples.begin(), samples.end());
    return samples.empty() ? 0 : samples[samples.size() / 2];
}

// Half of the distance between the extremes, in per cent of the median.
inline double Spread(const Samples &samples)
{
    const auto [least, most] = std::minmax_element(samples.begin(), samples.end());
    return samples.empty() || Median(samples) == 0 ? 0 : (*most - *least) / 2 / Median(samples) * 100;
}

inline double Percentile(Samples samples, double part)
{
    std::sort(samples.begin(), samples.end());
    return samples.empty()
               ? 0
               : samples[static_cast<std::size_t>(part * static_cast<double>(samples.size() - 1))];
}

inline sockaddr_in At(const char *address, std::uint16_t port)
{
    sockaddr_in result{};
    result.sin_family = AF_INET;
    result.sin_port = htons(port);
    inet_pton(AF_INET, address, &result.sin_addr);
    return result;
}

// The server on one processor, its clients on the other, both ahead of what else runs on this machine.
inline void Settle(pid_t pid, bool server)
{
    cpu_set_t processors;
    CPU_ZERO(&processors);
    CPU_SET(server ? 0 : 1, &processors);
    sched_setaffinity(pid, sizeof processors, &processors); // one processor only: stays as it is
    setpriority(PRIO_PROCESS, static_cast<id_t>(pid), -20);
    std::ofstream("/proc/" + std::to_string(pid) + "/autogroup") << "-20";
}

enum class Limit { kAtLeastRatio, kAtMostRatio, kAtMostValue };

struct Row {
    std::string what; // with its unit
    Samples subject;
    Samples baseline; // empty: there is none
    Limit limit;
    double bound;
};

// Prints the table. 0 when every limit is kept, 1 otherwise: the exit status.
inline int Report(const char *title, const std::vector<Row> &rows)
{
    std::printf("%s, median of %zu interleaved runs (± half the range)\n", title,
                rows.front().subject.size());
    std::printf("%-34s %20s %20s %7s  %s\n", "", "ledboardd", "baseline", "ratio", "limit");
    int status = 0;
    for (const Row &row : rows) {
        const double subject = Median(row.subject);
        const double baseline = Median(row.baseline);
        const double ratio = baseline == 0 ? 0 : subject / baseline;
        const bool kept = row.limit == Limit::kAtLeastRatio  ? ratio >= row.bound
                          : row.limit == Limit::kAtMostRatio ? ratio <= row.bound
                                                             : subject <= row.bound;
        char bare[32] = "-";
        char part[16] = "-";
        if (!row.baseline.empty()) {
            std::snprintf(bare, sizeof bare, "%.1f ± %.0f %%", baseline, Spread(row.baseline));
            std::snprintf(part, sizeof part, "%.2f", ratio);
        }
        char own[32];
        std::snprintf(own, sizeof own, "%.1f ± %.0f %%", subject, Spread(row.subject));
        std::printf("%-34s %21s %21s %7s  %s %g%s\n", row.what.c_str(), own, bare, part,
                    row.limit == Limit::kAtLeastRatio  ? "ratio at least"
                    : row.limit == Limit::kAtMostRatio ? "ratio at most"
                                                       : "at most",
                    row.bound, kept ? "" : "   MISSED");
        status |= kept ? 0 : 1;
    }
    return status;
}

} // namespace bench
