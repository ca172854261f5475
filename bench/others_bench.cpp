// SPDX-License-Identifier: Apache-2.0
// Size and time of a file, queried through other libraries.
#include "card.h"

#include <benchmark/benchmark.h>

#include <QDateTime>
#include <QFileInfo>

#include <gio/gio.h>

namespace {

using benchmark::State;

void statOfGio(State& state) {
    GFile* const file = g_file_new_for_path(Card::instance().systemClip());
    for (auto _ : state) {
        GFileInfo* const info = g_file_query_info(
            file, G_FILE_ATTRIBUTE_STANDARD_SIZE "," G_FILE_ATTRIBUTE_TIME_MODIFIED,
            G_FILE_QUERY_INFO_NONE, nullptr, nullptr);
        if (!info) {
            state.SkipWithError("g_file_query_info failed");
            break;
        }
        benchmark::DoNotOptimize(g_file_info_get_size(info));
        g_object_unref(info);
    }
    g_object_unref(file);
}

void statOfQFileInfo(State& state) {
    QFileInfo info(QString::fromUtf8(Card::instance().systemClip()));
    for (auto _ : state) {
        info.refresh();
        if (info.size() <= 0 || !info.lastModified().isValid())
            state.SkipWithError("QFileInfo failed");
    }
}

BENCHMARK(statOfGio)->Name("stat/gio");
BENCHMARK(statOfQFileInfo)->Name("stat/qfileinfo");

} // namespace
