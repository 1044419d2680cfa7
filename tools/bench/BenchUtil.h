#pragma once

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <vector>

namespace corvi::bench {

// Runs f() `rounds` times and answers the median wall time of one run, in nanoseconds.
template <typename F>
double medianNanos(int rounds, F&& f) {
    std::vector<double> times;
    times.reserve(static_cast<size_t>(rounds));
    for (int i = 0; i < rounds; ++i) {
        const auto start = std::chrono::steady_clock::now();
        f();
        const auto end = std::chrono::steady_clock::now();
        times.push_back(std::chrono::duration<double, std::nano>(end - start).count());
    }
    std::nth_element(times.begin(), times.begin() + static_cast<long>(times.size() / 2), times.end());
    return times[times.size() / 2];
}

// One figure per line: "<name>: <value> <unit>   (goal: <goal>)".
inline void report(const char* name, double value, const char* unit, const char* goal = nullptr) {
    if (goal)
        std::printf("%-48s %12.3f %-6s (goal: %s)\n", name, value, unit, goal);
    else
        std::printf("%-48s %12.3f %s\n", name, value, unit);
    std::fflush(stdout);
}

}  // namespace corvi::bench
