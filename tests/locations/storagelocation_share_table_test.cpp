// SPDX-License-Identifier: Apache-2.0
// RemoteLocation: a table of every operation in every state with every outcome.
#include <oruio/error.h>
#include <oruio/storagelocation.h>

#include "support/doubles/memfs.h"
#include "support/doubles/openlocation.h"
#include "support/doubles/scriptedshare.h"
#include "support/suite/logcapture.h"
#include "support/suite/qtprint.h"
#include "support/suite/transitions.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ostream>
#include <string>

namespace oru::io {
namespace {

using test::Any;
using test::Given;
using test::Ignore;
using test::Kept;
using test::LocationState;
using test::MemFS;
using test::ScriptedNfs;
using test::ScriptedSmb;
using test::stateString;
using test::Transition;

// --- The share ----------------------------------------------------------------------------------

/// The file system of the location.
enum Kind : unsigned { Smb = 1 << 0, Nfs = 1 << 1, Local = 1 << 2, NoFS = 1 << 3 };
constexpr unsigned Shares = Smb | Nfs;

class OpenRemoteLocation : public RemoteLocation {
public:
    using RemoteLocation::RemoteLocation;
    using StorageLocation::m_enabled;
};

/// A location, its scripted file system, and the result of its last probe.
class Port {
public:
    explicit Port(Kind ofFS) : kind(ofFS) {
        QObject::connect(&location, &StorageLocation::accessChanged, [this] { ++signals_; });
    }

    int mount(Properties given) {
        return location.mount(&given);
    }
    /// Sets the result of the share's calls, and whether the share is read-only.
    void script(int result, bool isReadOnly) {
        withShare([=](auto& share) {
            share.result = result;
            share.disconnectResult = result;
            share.isReadOnly = isReadOnly;
        });
    }
    void loseConnection() {
        withShare([](auto& share) { share.isUp = false; });
    }
    QStringList takeCalls() {
        QStringList taken;
        withShare([&](auto& share) { taken.swap(share.calls); });
        return taken;
    }
    LocationState state() {
        bool isUp = false;
        withShare([&](auto& share) { isUp = share.isUp; });
        const auto yesOrNo = [](bool is) { return is ? "yes" : "no"; };
        return {{"access", StorageLocation::straccess(location.access())},
                {"enabled", yesOrNo(location.m_enabled)},
                {"up", yesOrNo(isUp)},
                {"writable", yesOrNo(isWritable)}};
    }

    const test::LogCapture quiet{"stg=0"};
    const Kind kind;
    const QSharedPointer<ScriptedSmb> smb = QSharedPointer<ScriptedSmb>::create(1);
    const QSharedPointer<ScriptedNfs> nfs = QSharedPointer<ScriptedNfs>::create("/no/such/place");
    Properties props = {{"server", "first"}};
    OpenRemoteLocation location{"share", fs(), &props};
    bool isWritable = false;
    int signals_ = 0;

private:
    FS::SPtr fs() const {
        switch (kind) {
        case Smb:
            return smb;
        case Nfs:
            return nfs;
        case Local:
            return FS::SPtr(new MemFS);
        case NoFS:
            break;
        }
        return {};
    }
    template <class Function>
    void withShare(Function function) {
        if (kind == Smb)
            function(*smb);
        else if (kind == Nfs)
            function(*nfs);
    }
};

// --- Its states ---------------------------------------------------------------------------------

enum State : unsigned { Out = 1 << 0, Probed = 1 << 1, In = 1 << 2, Lost = 1 << 3 };
constexpr unsigned Up = Probed | In;
constexpr unsigned Down = Out | Lost;
constexpr unsigned InUse = In | Lost;

struct StateRow {
    State state;
    const char* name;
    unsigned kinds; ///< the kinds of file system that can be in this state
    void (*enter)(Port& port);
    const char* fields; ///< the fields that differ from those of Out
};

// clang-format off
const StateRow states[] = {
    {Out, "Out", Any, [](Port&) {}, ""},
    // Connected by a probe.
    {Probed, "Probed", Shares, [](Port& p) { p.location.probe(nullptr, nullptr, false); },
        "up=yes"},
    {In, "In", Shares, [](Port& p) { p.mount({}); },
        "access=Write up=yes"},
    // The server is gone, and no call has failed yet.
    {Lost, "Lost", Shares, [](Port& p) { p.mount({}), p.loseConnection(); },
        "access=Write"},
};
// clang-format on

void PrintTo(const StateRow& row, std::ostream* out) {
    *out << row.name;
}

// --- Operations and outcomes --------------------------------------------------------------------

enum Operation : unsigned {
    Enable = 1 << 0,
    Disable = 1 << 1,
    Check = 1 << 2,
    MkReadOnly = 1 << 3,
    MkWriteable = 1 << 4,
    Mount = 1 << 5,
    MountSecond = 1 << 6,
    Umount = 1 << 7,
    IsWriteProtected = 1 << 8,
    Ping = 1 << 9,
    Probe = 1 << 10,
    ProbeWriting = 1 << 11,
    ProbeOnly = 1 << 12,
};

struct OperationRow {
    Operation operation;
    const char* name;
    int (*run)(Port& port);
};

// clang-format off
const OperationRow operations[] = {
    {Enable,           "enable",           [](Port& p) { return p.location.enable(); }},
    {Disable,          "disable",          [](Port& p) { return p.location.disable(); }},
    {Check,            "check",            [](Port& p) { return p.location.check(); }},
    {MkReadOnly,       "mkReadOnly",       [](Port& p) { return p.location.mkReadOnly(); }},
    {MkWriteable,      "mkWriteable",      [](Port& p) { return p.location.mkWriteable(); }},
    {Mount,            "mount",            [](Port& p) { return p.location.mount(nullptr); }},
    {MountSecond,      "mount of another", [](Port& p) { return p.mount({{"server", "second"}}); }},
    {Umount,           "umount",           [](Port& p) { return p.location.umount(nullptr); }},
    {IsWriteProtected, "isWriteProtected", [](Port& p) { return int(p.location.isWriteProtected()); }},
    {Ping,             "ping",             [](Port& p) { return int(p.location.ping()); }},
    {Probe,            "probe",            [](Port& p) { return p.location.probe(nullptr, nullptr, false); }},
    {ProbeWriting,     "probe of writing", [](Port& p) { return p.location.probe(&p.isWritable, nullptr, false); }},
    {ProbeOnly,        "probe without connecting", [](Port& p) { return p.location.probe(&p.isWritable, nullptr, true); }},
};
// clang-format on

/// The results of the share's connect() and disconnect().
enum Outcome : unsigned {
    Zero = 1 << 0,
    ZeroReadOnly = 1 << 1, ///< 0, and the share is read-only
    Positive = 1 << 2,     ///< an exit status of the maintenance program
    Negative = 1 << 3,
};
constexpr unsigned Works = Zero | ZeroReadOnly;
constexpr unsigned Fails = Positive | Negative;

struct OutcomeRow {
    Outcome outcome;
    const char* name;
    int result;
};

const OutcomeRow outcomes[] = {
    {Zero, "0", 0}, {ZeroReadOnly, "0, read-only", 0}, {Positive, "32", 32}, {Negative, "-1", -1}};

// --- The table ----------------------------------------------------------------------------------

// clang-format off
const Transition table[] = {
    // Only sets or clears the flag.
    {Enable,  Any,    Any, Any, 0,  Ignore, "enabled=yes", ""},
    {Disable, ~InUse, Any, Any, 0,  Ignore, "enabled=no",  ""},
    {Disable, InUse,  Any, Any, -1, Kept,   "",            ""},

    // No effect, or not implemented for shares.
    {Check,                    Any, Any, Any, 1,  Ignore,         "", ""},
    {MkReadOnly | MkWriteable, Any, Any, Any, -1, NotImplemented, "", ""},
    {IsWriteProtected,         Any, Any, Any, 0,  Ignore,         "", ""},

    // Connects, even if connected.
    {Mount,               Any, Shares,  Works, 0,     Ignore, "access=Write up=yes", "connect first"},
    {Mount,               Any, Shares,  Fails, Given, Kept,   "access=None up=no",   "connect first"},
    {MountSecond,         Any, Shares,  Works, 0,     Ignore, "access=Write up=yes", "connect second"},
    {MountSecond,         Any, Shares,  Fails, Given, Kept,   "access=None up=no",   "connect second"},
    {Mount | MountSecond, Any, ~Shares, Any,   -1,    Ignore, "access=None",         ""},

    // After umount() the access is None: whether the share is reachable is unknown.
    {Umount, Any, Shares,  Works, 0,     Ignore, "access=None up=no", "disconnect"},
    {Umount, Any, Shares,  Fails, Given, Kept,   "",                  "disconnect"},
    {Umount, Any, ~Shares, Any,   0,     Ignore, "access=None",       ""},

    {Ping, Up,   Shares,  Any, 1, Ignore, "", "isConnected"},
    {Ping, Down, Shares,  Any, 0, Ignore, "", "isConnected"},
    {Ping, Any,  ~Shares, Any, 1, Ignore, "", ""},

    // Connects if needed, creates and removes a file, and does not change the access.
    {Probe,                Up,   Shares, Any,           0,     Ignore, "",                    "isConnected"},
    {Probe,                Down, Shares, Works,         0,     Ignore, "up=yes",              "isConnected, connect first"},
    {ProbeWriting,         Up,   Shares, ~ZeroReadOnly, 0,     Ignore, "writable=yes",        "isConnected, marker"},
    {ProbeWriting,         Up,   Shares, ZeroReadOnly,  0,     Ignore, "writable=no",         "isConnected, marker"},
    {ProbeWriting,         Down, Shares, Zero,          0,     Ignore, "up=yes writable=yes", "isConnected, connect first, marker"},
    {ProbeWriting,         Down, Shares, ZeroReadOnly,  0,     Ignore, "up=yes writable=no",  "isConnected, connect first, marker"},
    {Probe | ProbeWriting, Down, Shares, Fails,         Given, Kept,   "",                    "isConnected, connect first, disconnect"},
    {Probe | ProbeWriting, Any,  ~Shares, Any,          -1,    Ignore, "",                    ""},
    {ProbeOnly,            Any,  Shares, ~ZeroReadOnly, 0,     Ignore, "writable=yes",        "marker"},
    {ProbeOnly,            Any,  Shares, ZeroReadOnly,  0,     Ignore, "writable=no",         "marker"},
    {ProbeOnly,            Any,  Local,  Any,           0,     Ignore, "writable=yes",        ""},
    {ProbeOnly,            Any,  NoFS,   Any,           0,     Ignore, "",                    ""},
};
// clang-format on

// --- The test -----------------------------------------------------------------------------------

/// Replaces "marker" by its three calls. For NFS, where the share is a local directory, the
/// marker's name begins with a slash.
QStringList callsInFull(QString calls, Kind kind) {
    const QString marker = kind == Nfs ? "/ORU-write-check-unknown" : "ORU-write-check-unknown";
    calls.replace("marker", QStringLiteral("unlink %1, open %1 66 666, unlink %1").arg(marker));
    return calls.split(", ", Qt::SkipEmptyParts);
}

/// Tests one combination with a new location. `isOn` is the initial value of its flags.
void expectTransition(const StateRow& state, const OperationRow& operation, Kind kind,
                      const OutcomeRow& outcome, bool isOn) {
    SCOPED_TRACE(::testing::Message()
                 << operation.name << " in " << state.name << ", outcome " << outcome.name
                 << ", kind " << kind << (isOn ? ", enabled" : ""));
    const Transition* const row =
        test::transitionFor(table, operation.operation, state.state, kind, outcome.outcome);
    ASSERT_NE(row, nullptr);

    Port port(kind);
    const LocationState initial = port.state();
    state.enter(port);
    ASSERT_EQ(stateString(port.state()), stateString(test::changed(initial, state.fields)));
    port.location.m_enabled = isOn;
    port.isWritable = isOn;

    const LocationState before = port.state();
    port.script(outcome.result, outcome.outcome == ZeroReadOnly);
    port.takeCalls();
    liberrno = test::reasonBefore;
    const int result = operation.run(port);
    test::expectResult(*row, result, outcome.result, test::reasonBefore);
    EXPECT_EQ(stateString(port.state()), stateString(test::changed(before, row->changes)));
    EXPECT_EQ(port.takeCalls(), callsInFull(row->calls, kind));
    EXPECT_EQ(port.signals_, 0);
}

class RemoteLocationState : public ::testing::TestWithParam<StateRow> {};

TEST_P(RemoteLocationState, EveryOperation_MatchesTable) {
    unsetenv("SERIAL_NUMBER");
    for (const OperationRow& operation : operations) {
        for (const OutcomeRow& outcome : outcomes) {
            for (const Kind kind : {Smb, Nfs, Local, NoFS}) {
                for (const bool isOn : {false, true}) {
                    if (GetParam().kinds & kind)
                        expectTransition(GetParam(), operation, kind, outcome, isOn);
                }
            }
        }
    }
}

const auto nameOf = [](const ::testing::TestParamInfo<StateRow>& state) {
    return std::string(state.param.name);
};
INSTANTIATE_TEST_SUITE_P(States, RemoteLocationState, ::testing::ValuesIn(states), nameOf);

} // namespace
} // namespace oru::io
