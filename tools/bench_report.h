// The lines every load generator here prints and bench/run parses: latency
// percentiles and failures by kind. One printer, so the formats cannot drift.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

// Nearest rank: the smallest sample with at least p% of all at or below it.
inline uint32_t percentile(const std::vector<uint32_t>& sorted, unsigned p)
{
    size_t rank = (sorted.size() * p + 99) / 100;
    return sorted[rank == 0 ? 0 : rank - 1];
}

// "latency_us p50=.. p90=.. p99=.. max=.." (or "none") and "failures KIND=N ..."
// (or "none"); sorts all.
inline void print_latency_and_failures(std::vector<uint32_t>& all, const std::map<std::string, uint64_t>& failures)
{
    if (all.empty()) {
        printf("latency_us none\n");
    } else {
        std::sort(all.begin(), all.end());
        printf("latency_us p50=%u p90=%u p99=%u max=%u\n", percentile(all, 50), percentile(all, 90),
               percentile(all, 99), all.back());
    }
    std::string line = "failures";
    for (const auto& [key, count] : failures)
        line += " " + key + "=" + std::to_string(count);
    printf("%s\n", failures.empty() ? "failures none" : line.c_str());
}
