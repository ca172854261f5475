#include "targets.h"

const std::vector<Target>& targets() {
    static const std::vector<Target> all{
        {"`stat`: adapter, switch with 8 mounts, local backend / system call", "stat/oruio",
         "stat/system", Target::RatioAtMost, 1.6},
        {"`open` and `close`, the same way / system calls", "open_close/oruio", "open_close/system",
         Target::RatioAtMost, 1.6},
        {"`pread` of 4 KiB through a descriptor / system call", "pread_4k/oruio", "pread_4k/system",
         Target::RatioAtMost, 1.15},
        {"`pread` of 1 MiB through a descriptor / system call", "pread_1m/oruio", "pread_1m/system",
         Target::RatioAtMost, 1.02},
        {"`open` and `close` with 100,000 descriptors open / with 10", "open_close/100000_open",
         "open_close/10_open", Target::RatioAtMost, 2},
        {"lookup in a switch of 16 mounts, worst place / of 1 mount", "lookup/16_mounts",
         "lookup/1_mount", Target::RatioAtMost, 3},
        {"GIO `g_file_query_info` / our `stat` of the file", "stat/gio", "stat/oruio",
         Target::RatioAbove, 1},
        {"`QFileInfo`, refreshed / our `stat` of the file", "stat/qfileinfo", "stat/oruio",
         Target::RatioAbove, 1},
        {"log message below the threshold - empty call", "log/dropped", "log/empty_call",
         Target::DifferenceAtMost, 5},
    };
    return all;
}
