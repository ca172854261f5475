// Tables that say what an object with states does: one row for an operation, the states it may
// find, and what may come of it.
#pragma once

#include "support/doubles/openlocation.h"
#include "support/suite/qtprint.h"

#include <oruio/error.h>

#include <gtest/gtest.h>

#include <QString>
#include <QStringList>

#include <cstddef>

namespace oru::io::test {

/// For each combination of the first four columns, which are sets of bits, what is to happen.
struct Transition {
    unsigned operations;
    unsigned states;
    unsigned places; ///< of the object, as it differs from others of its kind
    unsigned outcomes;
    int result;
    int reason;          ///< in liberrno, when the result is -1
    const char* changes; ///< the facts that are to be different, such as "access=Read mounted=yes"
    const char* calls;   ///< what others are asked by the object
};

constexpr unsigned Any = ~0U;
/// A result: that of what the object asked. A reason: what that left in liberrno.
constexpr int Given = 1000;
/// A reason: liberrno stays as it was.
constexpr int Kept = 2000;
/// A reason: nothing is promised of liberrno, as after a success.
constexpr int Unsaid = 3000;

/// liberrno before each operation; no operation of a location leaves this one.
constexpr ErrorCode reasonBefore = LibraryFailure;

/// The row for a combination. There has to be one, and only one; null when there is none.
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

/// `facts`, with those that `changes` names.
inline Facts changed(Facts facts, const char* changes) {
    for (const QString& change : QString(changes).split(' ', Qt::SkipEmptyParts)) {
        const QString name = change.section('=', 0, 0);
        EXPECT_TRUE(facts.contains(name)) << change.toStdString();
        facts[name] = change.section('=', 1);
    }
    return facts;
}

/// Of an operation that has just returned, and asked what gave `given` and left `givenReason`.
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
