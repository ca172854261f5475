// SPDX-License-Identifier: Apache-2.0
// SystemLocation: a table of every operation in every state with every outcome.
#include <oruio/error.h>
#include <oruio/fsswitch.h>
#include <oruio/storagelocation.h>

#include "support/doubles/memfs.h"
#include "support/doubles/memorymount.h"
#include "support/doubles/openlocation.h"
#include "support/doubles/scripteddevice.h"
#include "support/suite/logcapture.h"
#include "support/suite/qtprint.h"
#include "support/suite/transitions.h"
#include "support/system/isolated.h"
#include "support/system/mounts.h"
#include "support/system/tempdir.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <memory>
#include <ostream>
#include <string>

namespace oru::io {
namespace {

using test::Any;
using test::Device;
using test::Given;
using test::Ignore;
using test::Kept;
using test::LocationState;
using test::makeDevice;
using test::MemFS;
using test::MemoryMount;
using test::OpenLocation;
using test::stateString;
using test::Transition;

// --- The slot -----------------------------------------------------------------------------------

constexpr char slotId[] = "platform-slot-1";

/// A location with a mount point in the root switch, and the devices that can be plugged in.
class Slot {
public:
    explicit Slot(const QString& directory)
        : mountPoint(directory + '/'), deeper(mountPoint + "deeper/") {
        FSSwitch::rootfs()->add(mountPoint, fs);
        FSSwitch::rootfs()->add(deeper, fs); // the first one is used
        locked->m_writeProtected = true;
        larger->m_blkSize = 4096;
        efi->m_partEntryType = "c12a7328-f81f-11d2-ba4b-00a0c93ec93b";
        foreign->m_idPath = "platform-slot-2";
        QObject::connect(&location, &StorageLocation::accessChanged, [this] { ++signals_; });
    }

    /// Delivers one event, as the monitor does.
    int notify(const char* action, const Device& device) {
        BDMon::Event event(1, action, nullptr);
        event.dev = device;
        return location.processBDEvents(BDMon::EventListSPtr::create(QList<BDMon::Event>{event}));
    }
    /// Sets the result of all devices.
    void script(int result, ErrorCode reason) {
        for (const Device& device : devices) {
            device->result = result;
            device->reason = reason;
        }
    }
    void failToMount() {
        script(-1, Ok);
        location.mount(nullptr);
        script(0, Ok);
    }
    int mount(Properties given) {
        return location.mount(&given);
    }
    int umount(Properties given) {
        return location.umount(&given);
    }

    const test::LogCapture quiet{"stg=0"};
    const test::FreshRootSwitch rootSwitch;
    const QString mountPoint;
    const QString deeper;
    const FS::SPtr fs{new MemFS};
    Properties props = {{"blkDevId", slotId}};
    OpenLocation location{"card", fs, &props};
    int signals_ = 0;

    const Device disk = named("disk", 0, 1000, "");
    const Device plain = named("plain", 0, 1000, "vfat");
    const Device locked = named("locked", 0, 1000, "");
    const Device part = named("part", 1, 900, "vfat");
    const Device other = named("other", 2, 50, "ext4");
    const Device smaller = named("smaller", 3, 899, "ext4");
    const Device equal = named("equal", 4, 900, "ext4");
    const Device larger = named("larger", 5, 200, "ext4"); // by its block size
    const Device unknown = named("unknown", 6, 9000, "");
    const Device efi = named("efi", 7, 9000, "vfat");
    const Device foreign = named("foreign", 0, 9000, "vfat");
    const QList<Device> devices = {disk,  plain,  locked,  part, other,  smaller,
                                   equal, larger, unknown, efi,  foreign};

private:
    static Device named(const char* name, quint32 number, quint64 blocks, const char* type) {
        Device device = makeDevice(slotId, number, blocks, type);
        device->m_devName = name;
        return device;
    }
};

// --- Its states ---------------------------------------------------------------------------------

enum State : unsigned {
    // Nothing is mounted.
    Empty = 1 << 0,
    Blank = 1 << 1,
    Plain = 1 << 2,
    Card = 1 << 3,
    Loose = 1 << 4,
    Locked = 1 << 5,
    Exchanged = 1 << 6,
    Failed = 1 << 7,
    Torn = 1 << 8,
    LockedTorn = 1 << 9,
    // Something is mounted.
    Written = 1 << 10,
    ReadOnly = 1 << 11,
    LockedWritten = 1 << 12,
    LockedRead = 1 << 13,
    Unsure = 1 << 14,
    TornMounted = 1 << 15,
    Pulled = 1 << 16,
    Back = 1 << 17,
    Whole = 1 << 18,
};

/// A state: how it is reached, and the fields in it.
struct StateRow {
    State state;
    const char* name;
    State from;                ///< the previous state
    void (*enter)(Slot& slot); ///< from the previous state to this one
    const char* fields;        ///< the fields that differ from those of a new location
};

// clang-format off
const StateRow states[] = {
    {Empty, "Empty", Empty, [](Slot&) {}, ""},
    // A disk without a file system.
    {Blank, "Blank", Empty, [](Slot& s) { s.notify("add", s.disk); },
        "access=Presence present=yes disk=disk"},
    // A disk with a file system and without partitions.
    {Plain, "Plain", Empty, [](Slot& s) { s.notify("add", s.plain); },
        "access=Presence present=yes disk=plain part=plain"},
    // A disk with two partitions, of which the first is the larger.
    {Card, "Card", Blank, [](Slot& s) { s.notify("add", s.part), s.notify("add", s.other); },
        "access=Presence present=yes disk=disk part=part"},
    // A partition whose disk was not added.
    {Loose, "Loose", Empty, [](Slot& s) { s.notify("add", s.part); },
        "access=Presence present=yes part=part"},
    // A write-protected card.
    {Locked, "Locked", Empty, [](Slot& s) { s.notify("add", s.locked), s.notify("add", s.part); },
        "access=Presence present=yes disk=locked part=part protected=yes"},
    // A writable card after a write-protected one.
    {Exchanged, "Exchanged", Locked,
        [](Slot& s) { s.notify("remove", s.locked), s.notify("add", s.disk), s.notify("add", s.part); },
        "access=Presence present=yes disk=disk part=part protected=yes"},
    // A card that could not be mounted.
    {Failed, "Failed", Card, [](Slot& s) { s.failToMount(); },
        "access=None present=yes disk=disk part=part"},
    // A card whose other partition was removed.
    {Torn, "Torn", Card, [](Slot& s) { s.notify("remove", s.other); },
        "access=None disk=disk"},
    {LockedTorn, "LockedTorn", Locked, [](Slot& s) { s.notify("remove", s.part); },
        "access=None disk=locked protected=yes"},

    {Written, "Written", Card, [](Slot& s) { s.mount({}); },
        "access=Write mounted=yes mountOk=yes present=yes disk=disk part=part"},
    {ReadOnly, "ReadOnly", Card, [](Slot& s) { s.mount({{"readonly", true}}); },
        "access=Read mounted=yes mountOk=yes present=yes disk=disk part=part"},
    // mount() does not check the write protection: the device refuses.
    {LockedWritten, "LockedWritten", Locked, [](Slot& s) { s.mount({}); },
        "access=Write mounted=yes mountOk=yes present=yes disk=locked part=part protected=yes"},
    {LockedRead, "LockedRead", Locked, [](Slot& s) { s.mount({{"readonly", true}}); },
        "access=Read mounted=yes mountOk=yes present=yes disk=locked part=part protected=yes"},
    // A mounted card whose remount failed.
    {Unsure, "Unsure", Written, [](Slot& s) { s.failToMount(); },
        "access=None mounted=yes present=yes disk=disk part=part"},
    // A mounted card whose other partition was removed.
    {TornMounted, "TornMounted", Written, [](Slot& s) { s.notify("remove", s.other); },
        "access=None mounted=yes mountOk=yes disk=disk"},
    // A mounted card that was pulled out.
    {Pulled, "Pulled", Written, [](Slot& s) { s.notify("remove", s.disk); },
        "access=None mounted=yes mountOk=yes"},
    // Plugged in again before it was unmounted.
    {Back, "Back", Pulled, [](Slot& s) { s.notify("add", s.disk), s.notify("add", s.part); },
        "access=Presence mounted=yes mountOk=yes present=yes disk=disk part=part"},
    // A card whose partition was removed and whose disk itself was mounted.
    {Whole, "Whole", Torn, [](Slot& s) { s.mount({}); },
        "access=Write mounted=yes mountOk=yes disk=disk"},
};
// clang-format on

// Sets of states.
constexpr unsigned Mounted =
    Written | ReadOnly | LockedWritten | LockedRead | Unsure | TornMounted | Pulled | Back | Whole;
constexpr unsigned Unmounted =
    Empty | Blank | Plain | Card | Loose | Locked | Exchanged | Failed | Torn | LockedTorn;
constexpr unsigned AtWrite = Written | LockedWritten | Whole;
constexpr unsigned AtRead = ReadOnly | LockedRead;
constexpr unsigned InUse = AtWrite | AtRead;
constexpr unsigned Nothing = Empty | Pulled; // no device
constexpr unsigned Mountable = ~(InUse | Nothing);
/// Only the disk is left: a partition was removed.
constexpr unsigned WithoutPart = Torn | LockedTorn | TornMounted | Whole;
constexpr unsigned Absent = Nothing | WithoutPart; // not present
constexpr unsigned Unselected = Nothing | WithoutPart | Blank;
constexpr unsigned Protected = Locked | LockedTorn | LockedWritten | LockedRead;

// --- Operations and outcomes --------------------------------------------------------------------

enum Operation : unsigned {
    Enable = 1 << 0,
    Disable = 1 << 1,
    Check = 1 << 2,
    MkReadOnly = 1 << 3,
    MkWriteable = 1 << 4,
    Mount = 1 << 5,
    MountReadonly = 1 << 6,
    Umount = 1 << 7,
    UmountLazy = 1 << 8,
    Format = 1 << 9,
    IsWriteProtected = 1 << 10,
    AddDisk = 1 << 11,
    AddPlain = 1 << 12,
    AddLocked = 1 << 13,
    AddSmaller = 1 << 14,
    AddEqual = 1 << 15,
    AddLarger = 1 << 16,
    AddUnknown = 1 << 17,
    AddEfi = 1 << 18,
    AddForeign = 1 << 19,
    Change = 1 << 20,
    RemovePart = 1 << 21,
    RemoveOther = 1 << 22,
    RemoveDisk = 1 << 23,
    RemoveForeign = 1 << 24,
    PlugForeign = 1 << 25,
    UnplugForeign = 1 << 26,
};
constexpr unsigned Unmounting = Umount | UmountLazy;

struct OperationRow {
    Operation operation;
    const char* name;
    int (*run)(Slot& slot);
};

// clang-format off
const OperationRow operations[] = {
    {Enable,           "enable",           [](Slot& s) { return s.location.enable(); }},
    {Disable,          "disable",          [](Slot& s) { return s.location.disable(); }},
    {Check,            "check",            [](Slot& s) { return s.location.check(); }},
    {MkReadOnly,       "mkReadOnly",       [](Slot& s) { return s.location.mkReadOnly(); }},
    {MkWriteable,      "mkWriteable",      [](Slot& s) { return s.location.mkWriteable(); }},
    {Mount,            "mount",            [](Slot& s) { return s.location.mount(nullptr); }},
    {MountReadonly,    "mount readonly",   [](Slot& s) { return s.mount({{"readonly", false}}); }},
    {Umount,           "umount",           [](Slot& s) { return s.location.umount(nullptr); }},
    {UmountLazy,       "umount lazy",      [](Slot& s) { return s.umount({{"lazy", false}}); }},
    {Format,           "format",           [](Slot& s) { return s.location.format(nullptr); }},
    {IsWriteProtected, "isWriteProtected", [](Slot& s) { return int(s.location.isWriteProtected()); }},
    {AddDisk,          "add disk",         [](Slot& s) { return s.notify("add", s.disk); }},
    {AddPlain,         "add plain disk",   [](Slot& s) { return s.notify("add", s.plain); }},
    {AddLocked,        "add locked disk",  [](Slot& s) { return s.notify("add", s.locked); }},
    {AddSmaller,       "add smaller",      [](Slot& s) { return s.notify("add", s.smaller); }},
    {AddEqual,         "add equal",        [](Slot& s) { return s.notify("add", s.equal); }},
    {AddLarger,        "add larger",       [](Slot& s) { return s.notify("add", s.larger); }},
    {AddUnknown,       "add unknown",      [](Slot& s) { return s.notify("add", s.unknown); }},
    {AddEfi,           "add EFI",          [](Slot& s) { return s.notify("add", s.efi); }},
    {AddForeign,       "add foreign",      [](Slot& s) { return s.notify("add", s.foreign); }},
    {Change,           "change",           [](Slot& s) { return s.notify("change", s.larger); }},
    {RemovePart,       "remove part",      [](Slot& s) { return s.notify("remove", s.part); }},
    {RemoveOther,      "remove other",     [](Slot& s) { return s.notify("remove", s.other); }},
    {RemoveDisk,       "remove disk",      [](Slot& s) { return s.notify("remove", s.disk); }},
    {RemoveForeign,    "remove foreign",   [](Slot& s) { return s.notify("remove", s.foreign); }},
    {PlugForeign,      "plug foreign",     [](Slot& s) { return s.location.addBlockDevice(s.foreign), 0; }},
    {UnplugForeign,    "unplug foreign",   [](Slot& s) { return s.location.removeBlockDevice(s.foreign), 0; }},
};
// clang-format on

/// Whether the root switch has a mount point for the location's file system.
enum MountPoint : unsigned { Here = 1 << 0, Nowhere = 1 << 1 };

/// The result of the device's call, or the state of the mount at the mount point.
enum Outcome : unsigned {
    Zero = 1 << 0,
    Positive = 1 << 1,
    SystemFails = 1 << 2,  ///< -1, with liberrno Ok
    LibraryFails = 1 << 3, ///< -1, with liberrno NotImplemented
    Idle = 1 << 4,         ///< can be unmounted
    Busy = 1 << 5,         ///< can only be unmounted lazily
};
constexpr unsigned OfTheKernel = Idle | Busy;
constexpr unsigned Works = Zero | Positive;
constexpr unsigned Fails = SystemFails | LibraryFails;

struct OutcomeRow {
    Outcome outcome;
    const char* name;
    int result;
    ErrorCode reason;
};

const OutcomeRow outcomes[] = {
    {Zero, "0", 0, Ok},          {Positive, "3", 3, Ok},
    {SystemFails, "-1", -1, Ok}, {LibraryFails, "-1 not implemented", -1, NotImplemented},
    {Idle, "idle", 0, Ok},       {Busy, "busy", 0, Ok},
};

// --- The table ----------------------------------------------------------------------------------

constexpr char toWrite[] = "access=Write mounted=yes mountOk=yes";
constexpr char toRead[] = "access=Read mounted=yes mountOk=yes";
constexpr char mountFails[] = "access=None mounted=no mountOk=no";
constexpr char remountFails[] = "access=None mountOk=no"; // the previous mount stays
constexpr char forget[] = "mounted=no";
constexpr char toPresence[] = "access=Presence mounted=no mountOk=no";
constexpr char unmount[] = "mounted=no mountOk=no"; // access() has changed before

// clang-format off
const Transition table[] = {
    // Only sets or clears the flag.
    {Enable,  Any,    Any, Any,  0, Ignore, "enabled=yes", ""},
    {Disable, ~InUse, Any, Any,  0, Ignore, "enabled=no",  ""},
    {Disable, InUse,  Any, Any, -1, Kept,   "",            ""},

    {Check, Nothing,  Any, Any, -1,    NotFound, "", ""},
    {Check, ~Nothing, Any, Any, Given, Given,    "", "selected fsck"},

    // A medium in use is remounted. Otherwise the location forgets its mount first, even if the
    // mount of a removed medium still exists.
    {Mount | MountReadonly, Nothing,   Any,     Any,   -1,    NotFound, forget,       ""},
    {Mount | MountReadonly, Mountable, Nowhere, Any,   -1,    NotFound, forget,       ""},
    {Mount | MountReadonly, InUse,     Nowhere, Any,   -1,    NotFound, "",           ""},
    {Mount,                 Mountable, Here,    Works, Given, Ignore,   toWrite,      "selected mount rw"},
    {Mount,                 Mountable, Here,    Fails, -1,    NotFound, mountFails,   "selected mount rw"},
    {Mount,                 InUse,     Here,    Works, Given, Ignore,   toWrite,      "selected remount rw"},
    {Mount,                 InUse,     Here,    Fails, -1,    NotFound, remountFails, "selected remount rw"},
    // Only the presence of "readonly" matters; its value here is false.
    {MountReadonly,         Mountable, Here,    Works, Given, Ignore,   toRead,       "selected mount ro"},
    {MountReadonly,         Mountable, Here,    Fails, -1,    NotFound, mountFails,   "selected mount ro"},
    {MountReadonly,         InUse,     Here,    Works, Given, Ignore,   toRead,       "selected remount ro"},
    {MountReadonly,         InUse,     Here,    Fails, -1,    NotFound, remountFails, "selected remount ro"},

    // Like mount, but any mount is remounted.
    {MkReadOnly, Absent,                       Any,     Any,   -1,    NotFound, "",           ""},
    {MkReadOnly, AtRead,                       Any,     Any,   0,     Ignore,   "",           ""},
    {MkReadOnly, ~(Absent | AtRead),           Nowhere, Any,   -1,    NotFound, "",           ""},
    {MkReadOnly, Unmounted & ~Absent,          Here,    Works, Given, Ignore,   toRead,       "selected mount ro"},
    {MkReadOnly, Unmounted & ~Absent,          Here,    Fails, -1,    NotFound, mountFails,   "selected mount ro"},
    {MkReadOnly, Mounted & ~(Absent | AtRead), Here,    Works, Given, Ignore,   toRead,       "selected remount ro"},
    {MkReadOnly, Written | LockedWritten,      Here,    Fails, -1,    NotFound, remountFails, "selected remount ro"},
    {MkReadOnly, Unsure | Back,                Here,    Fails, -1,    NotFound, mountFails,   "selected remount ro"},

    // Calls the device only: the fields of the location never change.
    {MkWriteable, Written | LockedWritten,                    Any,     Any, 0,     Ignore,         "", ""},
    {MkWriteable, Protected & ~LockedWritten,                 Any,     Any, -1,    NotImplemented, "", ""},
    {MkWriteable, Nothing,                                    Any,     Any, -1,    NotFound,       "", ""},
    {MkWriteable, ~(Written | Protected | Nothing),           Nowhere, Any, -1,    NotFound,       "", ""},
    {MkWriteable, Unmounted & ~(Protected | Nothing),         Here,    Any, Given, Given,          "", "selected mount rw"},
    {MkWriteable, Mounted & ~(Written | Protected | Nothing), Here,    Any, Given, Given,          "", "selected remount rw"},

    // Only after mount(). If the mount is not in use, the medium may be gone.
    {Umount | UmountLazy, Unmounted,        Any,     Any,  0,  Ignore,   "",         ""},
    {Umount | UmountLazy, Mounted,          Nowhere, Any,  -1, NotFound, "",         ""},
    {Umount | UmountLazy, InUse,            Here,    Idle, 0,  Ignore,   toPresence, "umount"},
    {Umount | UmountLazy, Mounted & ~InUse, Here,    Idle, 0,  Ignore,   unmount,    "umount"},
    {Umount,              Mounted,          Here,    Busy, -1, Kept,     "",         ""},
    {UmountLazy,          InUse,            Here,    Busy, 0,  Ignore,   toPresence, "umount"},
    {UmountLazy,          Mounted & ~InUse, Here,    Busy, 0,  Ignore,   unmount,    "umount"},

    // Formats the disk, never a partition.
    {Format, Mounted,                                  Any, Any, -1,    NotFound,       "", ""},
    {Format, Empty | Loose,                            Any, Any, -1,    NotFound,       "", ""},
    {Format, Locked | LockedTorn,                      Any, Any, -1,    NotImplemented, "", ""},
    {Format, Unmounted & ~(Empty | Loose | Protected), Any, Any, Given, Given,          "", "disk format"},

    // The protection of the disk, once there is a partition.
    {IsWriteProtected, Protected & ~LockedTorn,    Any, Any, 1, Ignore, "", ""},
    {IsWriteProtected, ~(Protected & ~LockedTorn), Any, Any, 0, Ignore, "", ""},

    // A disk clears the selection. The largest partition with a file system is selected, the first
    // of equal ones.
    {AddDisk,               Any,         Any, Any, 0, Ignore, "access=Presence present=yes disk=disk part=-",                 ""},
    {AddPlain,              Any,         Any, Any, 0, Ignore, "access=Presence present=yes disk=plain part=plain",            ""},
    {AddLocked,             Any,         Any, Any, 0, Ignore, "access=Presence present=yes disk=locked part=- protected=yes", ""},
    {AddSmaller,            Unselected,  Any, Any, 0, Ignore, "access=Presence present=yes part=smaller",                     ""},
    {AddEqual,              Unselected,  Any, Any, 0, Ignore, "access=Presence present=yes part=equal",                       ""},
    {AddSmaller | AddEqual, ~Unselected, Any, Any, 0, Ignore, "access=Presence present=yes",                                  ""},
    {AddLarger,             Any,         Any, Any, 0, Ignore, "access=Presence present=yes part=larger",                      ""},
    {AddUnknown,            Any,         Any, Any, 0, Ignore, "access=Presence present=yes",                                  ""},

    // The removal of any partition clears the selection. Mounts stay.
    {RemovePart | RemoveOther, Any, Any, Any, 0, Ignore, "access=None present=no part=-",        ""},
    {RemoveDisk,               Any, Any, Any, 0, Ignore, "access=None present=no disk=- part=-", ""},

    // Ignored.
    {AddEfi | AddForeign | PlugForeign | Change, Any, Any, Any, 0, Ignore, "", ""},
    {RemoveForeign | UnplugForeign,              Any, Any, Any, 0, Ignore, "", ""},
};
// clang-format on

// --- The test -----------------------------------------------------------------------------------

/// Expands a call of the table, such as "selected remount ro" or "disk format", to the form of
/// takeCalls().
QStringList callsInFull(const QString& call, const LocationState& state,
                        const QString& mountPoint) {
    const QStringList words = call.split(' ');
    if (words.size() == 1)
        return call.isEmpty() ? QStringList() : words;
    const QString device = state[words[0]];
    if (words.size() == 2)
        return {test::callString(device, words[1], {})};
    Properties props = {{"mountPoint", mountPoint}, {"readonly", words[2] == "ro"}};
    if (words[1] == "remount")
        props["remount"] = true;
    return {test::callString(device, "mount " + mountPoint, props)};
}

/// test::changed(), with "selected" derived from disk and partition.
LocationState changedState(const LocationState& base, const char* changes) {
    LocationState state = test::changed(base, changes);
    state["selected"] = state["part"] == "-" ? state["disk"] : state["part"];
    return state;
}

const StateRow& stateRow(State state) {
    return *std::find_if(std::begin(states), std::end(states),
                         [&](const StateRow& row) { return row.state == state; });
}

/// Goes through the previous states.
void enter(Slot& slot, const StateRow& row) {
    if (row.state == Empty)
        return;
    enter(slot, stateRow(row.from));
    row.enter(slot);
}

void PrintTo(const StateRow& row, std::ostream* out) {
    *out << row.name;
}

/// Tests one combination with a new slot.
void expectTransition(const StateRow& state, const OperationRow& operation, MountPoint mountPoint,
                      const OutcomeRow& outcome, const QString& directory) {
    SCOPED_TRACE(::testing::Message()
                 << operation.name << " in " << state.name << ", outcome " << outcome.name
                 << (mountPoint == Here ? "" : ", without a mount point"));
    const Transition* const row =
        test::transitionFor(table, operation.operation, state.state, mountPoint, outcome.outcome);
    ASSERT_NE(row, nullptr);

    Slot slot(directory);
    const LocationState initial = slot.location.state();
    enter(slot, state);
    ASSERT_EQ(stateString(slot.location.state()), stateString(changedState(initial, state.fields)));
    slot.location.m_enabled = operation.operation != Enable;
    if (mountPoint == Nowhere) {
        FSSwitch::rootfs()->remove(slot.mountPoint);
        FSSwitch::rootfs()->remove(slot.deeper);
    }
    std::unique_ptr<MemoryMount> mount;
    if (outcome.outcome & OfTheKernel) {
        mount = std::make_unique<MemoryMount>(
            directory, outcome.outcome == Busy ? MemoryMount::Busy : MemoryMount::Idle);
        ASSERT_TRUE(mount->isSetUp());
    }

    const LocationState before = slot.location.state();
    slot.script(outcome.result, outcome.reason);
    test::takeCalls(slot.devices);
    liberrno = test::reasonBefore;
    errno = 0;
    const int result = operation.run(slot);
    if (outcome.outcome == Busy && result == -1 && row->reason == Kept) {
        EXPECT_EQ(errno, EBUSY);
    }
    test::expectResult(*row, result, outcome.result, outcome.reason);
    EXPECT_EQ(stateString(slot.location.state()), stateString(changedState(before, row->changes)));
    QStringList calls = test::takeCalls(slot.devices);
    if (mount && test::devicesAt(directory).isEmpty())
        calls += "umount";
    EXPECT_EQ(calls, callsInFull(row->calls, before, slot.mountPoint));
    EXPECT_EQ(slot.signals_, 0);
}

/// Tests a state with all of these operations and outcomes.
void expectTransitions(const StateRow& state, unsigned ofOperations, unsigned ofOutcomes,
                       const QString& directory) {
    for (const OperationRow& operation : operations) {
        for (const OutcomeRow& outcome : outcomes) {
            if (!(operation.operation & ofOperations) || !(outcome.outcome & ofOutcomes))
                continue;
            for (const MountPoint mountPoint : {Here, Nowhere})
                expectTransition(state, operation, mountPoint, outcome, directory);
        }
    }
}

class SystemLocationState : public ::testing::TestWithParam<StateRow> {};

/// With a tmpfs mounted at the location's mount point.
class SystemLocationUmount : public test::Isolated,
                             public ::testing::WithParamInterface<StateRow> {};

TEST_P(SystemLocationState, EveryOperation_MatchesTable) {
    expectTransitions(GetParam(), ~Unmounting, ~OfTheKernel, "/no/such/directory");
}

TEST_P(SystemLocationUmount, IdleOrBusy_MatchesTable) {
    const test::TempDir temp;
    expectTransitions(GetParam(), Unmounting, OfTheKernel, temp.path());
}

const auto nameOf = [](const ::testing::TestParamInfo<StateRow>& info) {
    return std::string(info.param.name);
};
INSTANTIATE_TEST_SUITE_P(States, SystemLocationState, ::testing::ValuesIn(states), nameOf);
INSTANTIATE_TEST_SUITE_P(States, SystemLocationUmount, ::testing::ValuesIn(states), nameOf);

} // namespace
} // namespace oru::io
