// Tables of state transitions: a row has an operation, the states it applies to, and its outcome.
#pragma once

#include "support/doubles/openlocation.h"
#include "support/suite/qtprint.h"

#include <oruio/error.h>

#include <gtest/gtest.h>

#include <QString>
#include <QStringList>

#include <cstddef>

namespace oru::io::test {

/// One row. The first four columns are bit sets: the row applies to all their combinations.
struct Transition {
    unsigned operations;
    unsigned states;
    unsigned places; ///< the variants of the object
    unsigned outcomes;
    int result;
    int reason;          ///< liberrno, when the result is -1
    const char* changes; ///< the facts that change, such as "access=Read mounted=yes"
    const char* calls;   ///< the calls that the object makes
};

constexpr unsigned Any = ~0U;
/// A result: that of the call that the object makes. A reason: liberrno after that call.
constexpr int Given = 1000;
/// A reason: liberrno does not change.
constexpr int Kept = 2000;
/// A reason: liberrno is not checked, as after success.
constexpr int Unsaid = 3000;

/// liberrno before each operation. No operation of a location sets this value.
constexpr ErrorCode reasonBefore = LibraryFailure;

/// The row for a combination. Expects exactly one; null when there is none.
template <std::size_t size>
const Transition* transitionFor(const Transition (&table)[size], unsigned operation, unsigned state,
                                unsigned place, unsigned outcome) {
    const Transition* found = nullptr;
    int rows = 0;
    for (const Transition& row : table) {
        if ((row.operations & operation) && (row.states & state) && (row.places & place) &&
            (row.outcomes & outcome)) {
            found = &row;
            ++rows;
        }
    }
    EXPECT_EQ(rows, 1) << "rows of the table fit";
    return found;
}

/// `facts` with the values in `changes`.
inline Facts changed(Facts facts, const char* changes) {
    for (const QString& change : QString(changes).split(' ', Qt::SkipEmptyParts)) {
        const QString name = change.section('=', 0, 0);
        EXPECT_TRUE(facts.contains(name)) << change.toStdString();
        facts[name] = change.section('=', 1);
    }
    return facts;
}

/// Checks `result` and liberrno of an operation whose call returned `given` and set `givenReason`.
inline void expectResult(const Transition& row, int result, int given, int givenReason) {
    const int reason = liberrno;
    EXPECT_EQ(result, row.result == Given ? given : row.result);
    if (result != -1 || row.reason == Unsaid)
        return;
    EXPECT_EQ(reason, row.reason == Given  ? givenReason
                      : row.reason == Kept ? reasonBefore
                                           : row.reason);
}

} // namespace oru::io::test
