// What a location of local media does, in every state, with every operation, whatever comes of it.
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
using test::Facts;
using test::factsText;
using test::Given;
using test::Kept;
using test::makeDevice;
using test::MemFS;
using test::MemoryMount;
using test::OpenLocation;
using test::Transition;
using test::Unsaid;

// --- The slot -----------------------------------------------------------------------------------

constexpr char slotId[] = "platform-slot-1";

/// A location whose file system has a place in the root switch, and what can be plugged in there.
class Slot {
public:
    explicit Slot(const QString& directory) : place(directory + '/'), deeper(place + "deeper/") {
        FSSwitch::rootfs()->add(place, fs);
        FSSwitch::rootfs()->add(deeper, fs); // the first one counts
        locked->m_writeProtected = true;
        larger->m_blkSize = 4096;
        efi->m_partEntryType = "c12a7328-f81f-11d2-ba4b-00a0c93ec93b";
        foreign->m_idPath = "platform-slot-2";
        QObject::connect(&location, &StorageLocation::accessChanged, [this] { ++signals_; });
    }

    /// As the monitor does.
    int tell(const char* action, const Device& device) {
        BDMon::Event event(1, action, nullptr);
        event.dev = device;
        return location.processBDEvents(BDMon::EventListSPtr::create(QList<BDMon::Event>{event}));
    }
    /// What all devices are to answer.
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
    const test::OwnSwitch ownSwitch;
    const QString place;
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
    const Device larger = named("larger", 5, 200, "ext4"); // by the size of its blocks
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
    // Something is.
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

/// How a state is reached, and what is known in it.
struct StateRow {
    State state;
    const char* name;
    State from;                ///< the state before
    void (*enter)(Slot& slot); ///< leads from there
    const char* facts;         ///< that differ from those of a new location
};

// clang-format off
const StateRow states[] = {
    {Empty, "Empty", Empty, [](Slot&) {}, ""},
    // A disk without a file system.
    {Blank, "Blank", Empty, [](Slot& s) { s.tell("add", s.disk); },
        "access=Presence present=yes disk=disk"},
    // A disk with a file system and without partitions.
    {Plain, "Plain", Empty, [](Slot& s) { s.tell("add", s.plain); },
        "access=Presence present=yes disk=plain part=plain"},
    // A disk with two partitions, of which the first is the larger.
    {Card, "Card", Blank, [](Slot& s) { s.tell("add", s.part), s.tell("add", s.other); },
        "access=Presence present=yes disk=disk part=part"},
    // A partition of a disk that nobody has told of.
    {Loose, "Loose", Empty, [](Slot& s) { s.tell("add", s.part); },
        "access=Presence present=yes part=part"},
    // A card whose switch is on.
    {Locked, "Locked", Empty, [](Slot& s) { s.tell("add", s.locked), s.tell("add", s.part); },
        "access=Presence present=yes disk=locked part=part protected=yes"},
    // Another card in the place of a locked one.
    {Exchanged, "Exchanged", Locked,
        [](Slot& s) { s.tell("remove", s.locked), s.tell("add", s.disk), s.tell("add", s.part); },
        "access=Presence present=yes disk=disk part=part protected=yes"},
    // A card that could not be mounted.
    {Failed, "Failed", Card, [](Slot& s) { s.failToMount(); },
        "access=None present=yes disk=disk part=part"},
    // A card whose other partition was removed.
    {Torn, "Torn", Card, [](Slot& s) { s.tell("remove", s.other); },
        "access=None disk=disk"},
    {LockedTorn, "LockedTorn", Locked, [](Slot& s) { s.tell("remove", s.part); },
        "access=None disk=locked protected=yes"},

    {Written, "Written", Card, [](Slot& s) { s.mount({}); },
        "access=Write mounted=yes mountOk=yes present=yes disk=disk part=part"},
    {ReadOnly, "ReadOnly", Card, [](Slot& s) { s.mount({{"readonly", true}}); },
        "access=Read mounted=yes mountOk=yes present=yes disk=disk part=part"},
    // The location does not ask the switch: that is for the device to refuse.
    {LockedWritten, "LockedWritten", Locked, [](Slot& s) { s.mount({}); },
        "access=Write mounted=yes mountOk=yes present=yes disk=locked part=part protected=yes"},
    {LockedRead, "LockedRead", Locked, [](Slot& s) { s.mount({{"readonly", true}}); },
        "access=Read mounted=yes mountOk=yes present=yes disk=locked part=part protected=yes"},
    // A mounted card that could not be mounted anew.
    {Unsure, "Unsure", Written, [](Slot& s) { s.failToMount(); },
        "access=None mounted=yes present=yes disk=disk part=part"},
    // A mounted card whose other partition was removed.
    {TornMounted, "TornMounted", Written, [](Slot& s) { s.tell("remove", s.other); },
        "access=None mounted=yes mountOk=yes disk=disk"},
    // A mounted card that was pulled out.
    {Pulled, "Pulled", Written, [](Slot& s) { s.tell("remove", s.disk); },
        "access=None mounted=yes mountOk=yes"},
    // Plugged in again, before anybody has unmounted it.
    {Back, "Back", Pulled, [](Slot& s) { s.tell("add", s.disk), s.tell("add", s.part); },
        "access=Presence mounted=yes mountOk=yes present=yes disk=disk part=part"},
    // A torn card of which the disk itself was mounted.
    {Whole, "Whole", Torn, [](Slot& s) { s.mount({}); },
        "access=Write mounted=yes mountOk=yes disk=disk"},
};
// clang-format on

// What several states have in common.
constexpr unsigned Mounted =
    Written | ReadOnly | LockedWritten | LockedRead | Unsure | TornMounted | Pulled | Back | Whole;
constexpr unsigned Unmounted =
    Empty | Blank | Plain | Card | Loose | Locked | Exchanged | Failed | Torn | LockedTorn;
constexpr unsigned AtWrite = Written | LockedWritten | Whole;
constexpr unsigned AtRead = ReadOnly | LockedRead;
constexpr unsigned InUse = AtWrite | AtRead;
constexpr unsigned Nothing = Empty | Pulled; // no device is known
constexpr unsigned Mountable = ~(InUse | Nothing);
/// Of the disk only: a partition was removed.
constexpr unsigned WithoutPart = Torn | LockedTorn | TornMounted | Whole;
constexpr unsigned Absent = Nothing | WithoutPart; // counts as not present
constexpr unsigned Unselected = Nothing | WithoutPart | Blank;
constexpr unsigned Protected = Locked | LockedTorn | LockedWritten | LockedRead;

// --- What is done, and what comes of it ---------------------------------------------------------

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
    {AddDisk,          "add disk",         [](Slot& s) { return s.tell("add", s.disk); }},
    {AddPlain,         "add plain disk",   [](Slot& s) { return s.tell("add", s.plain); }},
    {AddLocked,        "add locked disk",  [](Slot& s) { return s.tell("add", s.locked); }},
    {AddSmaller,       "add smaller",      [](Slot& s) { return s.tell("add", s.smaller); }},
    {AddEqual,         "add equal",        [](Slot& s) { return s.tell("add", s.equal); }},
    {AddLarger,        "add larger",       [](Slot& s) { return s.tell("add", s.larger); }},
    {AddUnknown,       "add unknown",      [](Slot& s) { return s.tell("add", s.unknown); }},
    {AddEfi,           "add EFI",          [](Slot& s) { return s.tell("add", s.efi); }},
    {AddForeign,       "add foreign",      [](Slot& s) { return s.tell("add", s.foreign); }},
    {Change,           "change",           [](Slot& s) { return s.tell("change", s.larger); }},
    {RemovePart,       "remove part",      [](Slot& s) { return s.tell("remove", s.part); }},
    {RemoveOther,      "remove other",     [](Slot& s) { return s.tell("remove", s.other); }},
    {RemoveDisk,       "remove disk",      [](Slot& s) { return s.tell("remove", s.disk); }},
    {RemoveForeign,    "remove foreign",   [](Slot& s) { return s.tell("remove", s.foreign); }},
    {PlugForeign,      "plug foreign",     [](Slot& s) { return s.location.addBlockDevice(s.foreign), 0; }},
    {UnplugForeign,    "unplug foreign",   [](Slot& s) { return s.location.removeBlockDevice(s.foreign), 0; }},
};
// clang-format on

/// Whether the root switch has a place for the location's file system.
enum Place : unsigned { Here = 1 << 0, Nowhere = 1 << 1 };

/// What the device answers when it is asked, or what the kernel has mounted at the place.
enum Outcome : unsigned {
    Zero = 1 << 0,
    Positive = 1 << 1,
    SystemFails = 1 << 2,  ///< -1, with liberrno Ok
    LibraryFails = 1 << 3, ///< -1, with liberrno NotImplemented
    Idle = 1 << 4,         ///< what can be unmounted
    Busy = 1 << 5,         ///< what can be unmounted lazily only
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
constexpr char remountFails[] = "access=None mountOk=no"; // the mount of before stays
constexpr char forget[] = "mounted=no";
constexpr char toPresence[] = "access=Presence mounted=no mountOk=no";
constexpr char unmount[] = "mounted=no mountOk=no"; // access() said already that it is gone

// clang-format off
const Transition table[] = {
    // The owner's wish is noted, and no more.
    {Enable,  Any,    Any, Any,  0, Unsaid, "enabled=yes", ""},
    {Disable, ~InUse, Any, Any,  0, Unsaid, "enabled=no",  ""},
    {Disable, InUse,  Any, Any, -1, Kept,   "",            ""},

    {Check, Nothing,  Any, Any, -1,    NotFound, "", ""},
    {Check, ~Nothing, Any, Any, Given, Given,    "", "selected fsck"},

    // What is in use is mounted anew. Anything else begins with nothing mounted, even where the
    // mount of a medium that was pulled out is still there.
    {Mount | MountReadonly, Nothing,   Any,     Any,   -1,    NotFound, forget,       ""},
    {Mount | MountReadonly, Mountable, Nowhere, Any,   -1,    NotFound, forget,       ""},
    {Mount | MountReadonly, InUse,     Nowhere, Any,   -1,    NotFound, "",           ""},
    {Mount,                 Mountable, Here,    Works, Given, Unsaid,   toWrite,      "selected mount rw"},
    {Mount,                 Mountable, Here,    Fails, -1,    NotFound, mountFails,   "selected mount rw"},
    {Mount,                 InUse,     Here,    Works, Given, Unsaid,   toWrite,      "selected remount rw"},
    {Mount,                 InUse,     Here,    Fails, -1,    NotFound, remountFails, "selected remount rw"},
    // That "readonly" is there counts: its value is false.
    {MountReadonly,         Mountable, Here,    Works, Given, Unsaid,   toRead,       "selected mount ro"},
    {MountReadonly,         Mountable, Here,    Fails, -1,    NotFound, mountFails,   "selected mount ro"},
    {MountReadonly,         InUse,     Here,    Works, Given, Unsaid,   toRead,       "selected remount ro"},
    {MountReadonly,         InUse,     Here,    Fails, -1,    NotFound, remountFails, "selected remount ro"},

    // As a mount, but asks the device to remount whatever is mounted.
    {MkReadOnly, Absent,                       Any,     Any,   -1,    NotFound, "",           ""},
    {MkReadOnly, AtRead,                       Any,     Any,   0,     Unsaid,   "",           ""},
    {MkReadOnly, ~(Absent | AtRead),           Nowhere, Any,   -1,    NotFound, "",           ""},
    {MkReadOnly, Unmounted & ~Absent,          Here,    Works, Given, Unsaid,   toRead,       "selected mount ro"},
    {MkReadOnly, Unmounted & ~Absent,          Here,    Fails, -1,    NotFound, mountFails,   "selected mount ro"},
    {MkReadOnly, Mounted & ~(Absent | AtRead), Here,    Works, Given, Unsaid,   toRead,       "selected remount ro"},
    {MkReadOnly, Written | LockedWritten,      Here,    Fails, -1,    NotFound, remountFails, "selected remount ro"},
    {MkReadOnly, Unsure | Back,                Here,    Fails, -1,    NotFound, mountFails,   "selected remount ro"},

    // On the device itself: whatever comes of it, the location stays as it is.
    {MkWriteable, Written | LockedWritten,                    Any,     Any, 0,     Unsaid,         "", ""},
    {MkWriteable, Protected & ~LockedWritten,                 Any,     Any, -1,    NotImplemented, "", ""},
    {MkWriteable, Nothing,                                    Any,     Any, -1,    NotFound,       "", ""},
    {MkWriteable, ~(Written | Protected | Nothing),           Nowhere, Any, -1,    NotFound,       "", ""},
    {MkWriteable, Unmounted & ~(Protected | Nothing),         Here,    Any, Given, Given,          "", "selected mount rw"},
    {MkWriteable, Mounted & ~(Written | Protected | Nothing), Here,    Any, Given, Given,          "", "selected remount rw"},

    // Only what mount() has mounted. The medium of a mount that is not in use may be gone.
    {Umount | UmountLazy, Unmounted,        Any,     Any,  0,  Unsaid,   "",         ""},
    {Umount | UmountLazy, Mounted,          Nowhere, Any,  -1, NotFound, "",         ""},
    {Umount | UmountLazy, InUse,            Here,    Idle, 0,  Unsaid,   toPresence, "umount"},
    {Umount | UmountLazy, Mounted & ~InUse, Here,    Idle, 0,  Unsaid,   unmount,    "umount"},
    {Umount,              Mounted,          Here,    Busy, -1, Kept,     "",         ""},
    {UmountLazy,          InUse,            Here,    Busy, 0,  Unsaid,   toPresence, "umount"},
    {UmountLazy,          Mounted & ~InUse, Here,    Busy, 0,  Unsaid,   unmount,    "umount"},

    // Always the disk.
    {Format, Mounted,                                  Any, Any, -1,    NotFound,       "", ""},
    {Format, Empty | Loose,                            Any, Any, -1,    NotFound,       "", ""},
    {Format, Locked | LockedTorn,                      Any, Any, -1,    NotImplemented, "", ""},
    {Format, Unmounted & ~(Empty | Loose | Protected), Any, Any, Given, Given,          "", "disk format"},

    // That of the disk, once there is a partition.
    {IsWriteProtected, Protected & ~LockedTorn,    Any, Any, 1, Unsaid, "", ""},
    {IsWriteProtected, ~(Protected & ~LockedTorn), Any, Any, 0, Unsaid, "", ""},

    // A disk begins anew; the largest partition with a file system wins, the first of equal ones.
    {AddDisk,               Any,         Any, Any, 0, Unsaid, "access=Presence present=yes disk=disk part=-",                 ""},
    {AddPlain,              Any,         Any, Any, 0, Unsaid, "access=Presence present=yes disk=plain part=plain",            ""},
    {AddLocked,             Any,         Any, Any, 0, Unsaid, "access=Presence present=yes disk=locked part=- protected=yes", ""},
    {AddSmaller,            Unselected,  Any, Any, 0, Unsaid, "access=Presence present=yes part=smaller",                     ""},
    {AddEqual,              Unselected,  Any, Any, 0, Unsaid, "access=Presence present=yes part=equal",                       ""},
    {AddSmaller | AddEqual, ~Unselected, Any, Any, 0, Unsaid, "access=Presence present=yes",                                  ""},
    {AddLarger,             Any,         Any, Any, 0, Unsaid, "access=Presence present=yes part=larger",                      ""},
    {AddUnknown,            Any,         Any, Any, 0, Unsaid, "access=Presence present=yes",                                  ""},

    // The removal of any partition ends the selection. What is mounted stays so.
    {RemovePart | RemoveOther, Any, Any, Any, 0, Unsaid, "access=None present=no part=-",        ""},
    {RemoveDisk,               Any, Any, Any, 0, Unsaid, "access=None present=no disk=- part=-", ""},

    // None of its business.
    {AddEfi | AddForeign | PlugForeign | Change, Any, Any, Any, 0, Unsaid, "", ""},
    {RemoveForeign | UnplugForeign,              Any, Any, Any, 0, Unsaid, "", ""},
};
// clang-format on

// --- The test -----------------------------------------------------------------------------------

/// Of a call in short, such as "selected remount ro" or "disk format", the text of takeCalls().
QStringList callsInFull(const QString& call, const Facts& facts, const QString& place) {
    const QStringList words = call.split(' ');
    if (words.size() == 1)
        return call.isEmpty() ? QStringList() : words;
    const QString device = facts[words[0]];
    if (words.size() == 2)
        return {test::callText(device, words[1], {})};
    Properties props = {{"mountPoint", place}, {"readonly", words[2] == "ro"}};
    if (words[1] == "remount")
        props["remount"] = true;
    return {test::callText(device, "mount " + place, props)};
}

/// With the selection that follows from disk and partition.
Facts changedFacts(const Facts& base, const char* changes) {
    Facts facts = test::changed(base, changes);
    facts["selected"] = facts["part"] == "-" ? facts["disk"] : facts["part"];
    return facts;
}

const StateRow& stateRow(State state) {
    return *std::find_if(std::begin(states), std::end(states),
                         [&](const StateRow& row) { return row.state == state; });
}

/// By way of the states before.
void enter(Slot& slot, const StateRow& row) {
    if (row.state == Empty)
        return;
    enter(slot, stateRow(row.from));
    row.enter(slot);
}

void PrintTo(const StateRow& row, std::ostream* out) {
    *out << row.name;
}

/// One combination, with a slot of its own.
void expectTransition(const StateRow& state, const OperationRow& operation, Place place,
                      const OutcomeRow& outcome, const QString& directory) {
    SCOPED_TRACE(::testing::Message()
                 << operation.name << " in " << state.name << ", outcome " << outcome.name
                 << (place == Here ? "" : ", without a place"));
    const Transition* const row =
        test::transitionFor(table, operation.operation, state.state, place, outcome.outcome);
    ASSERT_NE(row, nullptr);

    Slot slot(directory);
    const Facts nothing = slot.location.facts();
    enter(slot, state);
    ASSERT_EQ(factsText(slot.location.facts()), factsText(changedFacts(nothing, state.facts)));
    slot.location.m_enabled = operation.operation != Enable;
    if (place == Nowhere) {
        FSSwitch::rootfs()->remove(slot.place);
        FSSwitch::rootfs()->remove(slot.deeper);
    }
    std::unique_ptr<MemoryMount> mount;
    if (outcome.outcome & OfTheKernel) {
        mount = std::make_unique<MemoryMount>(
            directory, outcome.outcome == Busy ? MemoryMount::Busy : MemoryMount::Idle);
        ASSERT_TRUE(mount->isSetUp());
    }

    const Facts facts = slot.location.facts();
    slot.script(outcome.result, outcome.reason);
    test::takeCalls(slot.devices);
    liberrno = test::reasonBefore;
    errno = 0;
    const int result = operation.run(slot);
    if (outcome.outcome == Busy && result == -1 && row->reason == Kept) {
        EXPECT_EQ(errno, EBUSY);
    }
    test::expectResult(*row, result, outcome.result, outcome.reason);
    EXPECT_EQ(factsText(slot.location.facts()), factsText(changedFacts(facts, row->changes)));
    QStringList calls = test::takeCalls(slot.devices);
    if (mount && test::devicesAt(directory).isEmpty())
        calls += "umount";
    EXPECT_EQ(calls, callsInFull(row->calls, facts, slot.place));
    EXPECT_EQ(slot.signals_, 0);
}

/// All combinations of a state with some operations and some outcomes.
void expectTransitions(const StateRow& state, unsigned ofOperations, unsigned ofOutcomes,
                       const QString& directory) {
    for (const OperationRow& operation : operations) {
        for (const OutcomeRow& outcome : outcomes) {
            if (!(operation.operation & ofOperations) || !(outcome.outcome & ofOutcomes))
                continue;
            for (const Place place : {Here, Nowhere})
                expectTransition(state, operation, place, outcome, directory);
        }
    }
}

class SystemLocationState : public ::testing::TestWithParam<StateRow> {};

/// With what the kernel has mounted at the location's place.
class SystemLocationUmount : public test::Isolated,
                             public ::testing::WithParamInterface<StateRow> {};

TEST_P(SystemLocationState, EveryOperation_AsInTheTable) {
    expectTransitions(GetParam(), ~Unmounting, ~OfTheKernel, "/no/such/directory");
}

TEST_P(SystemLocationUmount, IdleOrBusy_AsInTheTable) {
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
