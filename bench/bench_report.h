// How every benchmark says that a figure missed its target. Each figure is printed
// beside its target in the benchmark's own words; a figure that misses also gets
// one line
//   MISS: <what>: <value> <unit> (target <op> <target> <unit>)
// which `make bench` collects from all benchmarks, lists at the end, and fails on.
#pragma once

#include <cstdio>
#include <cstring>

namespace bench {

// Whether `value` meets "op target" (op: "<=", "<", ">=" or ">"); prints the MISS
// line when it does not.
inline bool check_target(const char* what, double value, const char* unit, const char* op, double target) {
    bool ok = false;
    if (!std::strcmp(op, "<="))
        ok = value <= target;
    else if (!std::strcmp(op, "<"))
        ok = value < target;
    else if (!std::strcmp(op, ">="))
        ok = value >= target;
    else if (!std::strcmp(op, ">"))
        ok = value > target;
    if (!ok) {
        std::printf("MISS: %s: %.4g %s (target %s %g %s)\n", what, value, unit, op, target, unit);
        std::fflush(stdout);
    }
    return ok;
}

}  // namespace bench
