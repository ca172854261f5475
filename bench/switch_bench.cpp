// SPDX-License-Identifier: Apache-2.0
// The cost of a path lookup, depending on the size of the mount table.
#include <oruio/fsswitch.h>
#include <oruio/posixfs.h>

#include <benchmark/benchmark.h>

namespace {

using benchmark::State;
using oru::io::FSSwitch;
using oru::io::PosixFS;

void lookup(State& state, int mounts) {
    FSSwitch fsSwitch;
    // Mount points of equal length: the last one is the first in the table. A lookup walks the
    // table from the end and compares the path with all others first.
    for (int number = 99; number > 99 - mounts; --number)
        fsSwitch.add(QStringLiteral("/media/sd%1").arg(number), PosixFS::SPtr::create(QString()));
    const QString path = QStringLiteral("/media/sd%1/DCIM/clip-0001.mov").arg(99 - mounts + 1);
    QString rest;
    for (auto _ : state) {
        if (!fsSwitch.getFS(path, &rest))
            state.SkipWithError("nothing is mounted there");
    }
}

BENCHMARK_CAPTURE(lookup, 1, 1)->Name("lookup/1_mount");
BENCHMARK_CAPTURE(lookup, 16, 16)->Name("lookup/16_mounts");

} // namespace
