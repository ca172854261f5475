// SPDX-License-Identifier: Apache-2.0
// State tables: one row for each operation, set of states and outcome.
#pragma once

#include "support/doubles/openlocation.h"
#include "support/suite/qtprint.h"

#include <oruio/error.h>

#include <gtest/gtest.h>

#include <QString>
#include <QStringList>

#include <cstddef>

namespace oru::io::test {

/// The expected effect of each combination of the first four columns, which are sets of bits.
struct Transition {
    unsigned operations;
    unsigned states;
    unsigned variants; ///< of the object, such as the kind of its file system
    unsigned outcomes;
    int result;
    int reason;          ///< in liberrno if the result is -1
    const char* changes; ///< the fields that change, such as "access=Read mounted=yes"
    const char* calls;   ///< the calls that the object makes
};

constexpr unsigned Any = ~0U;
/// As a result: the result of the object's call. As a reason: the liberrno of that call.
constexpr int Given = 1000;
/// As a reason: liberrno does not change.
constexpr int Kept = 2000;
/// As a reason: liberrno is not compared; it is unspecified, as after a success.
constexpr int Ignore = 3000;

/// liberrno before each operation. No operation of a location sets it to this code.
constexpr ErrorCode reasonBefore = LibraryFailure;

/// \returns the row of a combination, null if there is none. Expects exactly one.
template <std::size_t size>
const Transition* transitionFor(const Transition (&table)[size], unsigned operation, unsigned state,
                                unsigned variant, unsigned outcome) {
    const Transition* found = nullptr;
    int rows = 0;
    for (const Transition& row : table) {
        if ((row.operations & operation) && (row.states & state) && (row.variants & variant) &&
            (row.outcomes & outcome)) {
            found = &row;
            ++rows;
        }
    }
    EXPECT_EQ(rows, 1) << "rows of the table match";
    return found;
}

/// \returns `state` with the fields that `changes` names replaced.
inline LocationState changed(LocationState state, const char* changes) {
    for (const QString& change : QString(changes).split(' ', Qt::SkipEmptyParts)) {
        const QString name = change.section('=', 0, 0);
        EXPECT_TRUE(state.contains(name)) << change.toStdString();
        state[name] = change.section('=', 1);
    }
    return state;
}

/// Compares the result of an operation that has just returned with its row. `given` is the result
/// of the object's own call, `givenReason` the liberrno of that call.
inline void expectResult(const Transition& row, int result, int given, int givenReason) {
    const int reason = liberrno;
    EXPECT_EQ(result, row.result == Given ? given : row.result);
    if (result != -1 || row.reason == Ignore)
        return;
    EXPECT_EQ(reason, row.reason == Given  ? givenReason
                      : row.reason == Kept ? reasonBefore
                                           : row.reason);
}

} // namespace oru::io::test
