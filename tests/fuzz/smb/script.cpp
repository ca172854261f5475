// SPDX-License-Identifier: Apache-2.0
#include "fuzz/smb/script.h"

#include "fuzz/support.h"

#include <algorithm>
#include <iterator>
#include <sstream>

namespace oru::io::test {

using namespace smb2;

namespace {

struct ChangeName {
    const char* name;
    int arguments;
};

/// In the order of Fault::Change.
constexpr ChangeName changes[] = {
    {"put", 3},    {"fill", 3},   {"flip", 2},    {"insert", 3},  {"erase", 2},     {"cut", 1},
    {"grow", 2},   {"refuse", 1}, {"length", 1},  {"short", 1},   {"split", 1},     {"drop", 0},
    {"double", 0}, {"hold", 0},   {"pending", 1}, {"unasked", 3}, {"transform", 1}, {"close", 0},
};

constexpr int maxFaults = 12;
constexpr int maxOperations = 24;
/// No fault makes a message longer than this.
constexpr quint64 maxSize = 1 << 18;

template <class Int>
void put(QByteArray& message, quint64 offset, quint64 value) {
    if (offset <= maxSize)
        setField<Int>(message, static_cast<qint64>(offset), static_cast<Int>(value));
}

} // namespace

void Fault::apply(QByteArray& message) const {
    const auto size = static_cast<quint64>(message.size());
    const auto& [first, second, third] = arguments;
    const int offset = static_cast<int>(std::min(first, size));
    const int count = static_cast<int>(std::min(second, size - static_cast<quint64>(offset)));
    const int added = static_cast<int>(std::min(second, maxSize));
    switch (change) {
    case Put:
        if (second == 1)
            put<quint8>(message, first, third);
        else if (second == 2)
            put<quint16>(message, first, third);
        else if (second == 4)
            put<quint32>(message, first, third);
        else
            put<quint64>(message, first, third);
        break;
    case Fill:
        message.replace(offset, count, QByteArray(count, static_cast<char>(third)));
        break;
    case Flip:
        if (first < size)
            message[offset] = static_cast<char>(message.at(offset) ^ (1 << (second % 8)));
        break;
    case Insert:
        message.insert(offset, QByteArray(added, static_cast<char>(third)));
        break;
    case Erase:
        message.remove(offset, count);
        break;
    case Cut:
        message.truncate(offset);
        break;
    case Grow:
        message.append(
            QByteArray(static_cast<int>(std::min(first, maxSize)), static_cast<char>(second)));
        break;
    case Refuse:
        setField<quint32>(message, field::status, static_cast<quint32>(first));
        message = errorOf(message);
        break;
    default:
        break;
    }
}

// --- Lines ---------------------------------------------------------------------------------------

namespace {

QList<QByteArray> wordsOf(std::string_view line) {
    const QByteArray words = QByteArray(line.data(), static_cast<int>(line.size())).simplified();
    return words.isEmpty() ? QList<QByteArray>() : words.split(' ');
}

bool parseFault(const QList<QByteArray>& words, Fault& fault) {
    constexpr int fixed = 4;
    if (words.size() < fixed)
        return false;
    const auto* const found =
        std::find_if(std::begin(changes), std::end(changes),
                     [&](const ChangeName& change) { return words[3] == change.name; });
    if (found == std::end(changes))
        return false;
    fault.operation = words[0];
    fault.command = commandOf(words[1]);
    fault.number = words[2].toInt();
    fault.change = static_cast<Fault::Change>(found - std::begin(changes));
    for (int i = 0; i < found->arguments && fixed + i < words.size(); ++i)
        fault.arguments[i] = words[fixed + i].toULongLong(nullptr, 0);
    return true;
}

} // namespace

Script Script::parsed(const std::uint8_t* input, std::size_t size) {
    Script script;
    for (const std::string_view line : linesOf(input, size)) {
        const QList<QByteArray> words = wordsOf(line);
        if (words.isEmpty())
            continue;
        Fault fault;
        if (script.dialect.isEmpty()) {
            script.dialect = words.first();
            script.operations = words.mid(1, maxOperations);
        } else if (script.faults.size() < maxFaults && parseFault(words, fault)) {
            script.faults.append(fault);
        }
    }
    if (!recordings().contains(script.dialect))
        script.dialect = recordings().lastKey();
    return script;
}

std::string Script::toString() const {
    std::ostringstream lines;
    lines << dialect.constData();
    for (const QByteArray& operation : operations)
        lines << ' ' << operation.constData();
    lines << '\n';
    for (const Fault& fault : faults) {
        const ChangeName& change = changes[fault.change];
        lines << fault.operation.constData() << ' ' << nameOf(fault.command) << ' ' << fault.number
              << ' ' << change.name;
        for (int i = 0; i < change.arguments; ++i) {
            lines << ' ' << std::showbase << (fault.arguments[i] > 0xffff ? std::hex : std::dec)
                  << fault.arguments[i] << std::dec;
        }
        lines << '\n';
    }
    return lines.str();
}

// --- Chance -------------------------------------------------------------------------------------

namespace {

/// The same numbers for the same seed, on every machine (splitmix64).
class Dice {
public:
    explicit Dice(quint64 seed) : m_state(seed) {}

    quint64 roll() {
        m_state += 0x9e3779b97f4a7c15;
        quint64 mixed = m_state;
        mixed = (mixed ^ (mixed >> 30)) * 0xbf58476d1ce4e5b9;
        mixed = (mixed ^ (mixed >> 27)) * 0x94d049bb133111eb;
        return mixed ^ (mixed >> 31);
    }
    /// A number below `limit`.
    quint64 below(quint64 limit) {
        return limit == 0 ? 0 : roll() % limit;
    }
    bool oneIn(quint64 count) {
        return below(count) == 0;
    }
    template <class List>
    auto oneOf(const List& list) {
        return *(std::begin(list) + static_cast<std::ptrdiff_t>(below(std::size(list))));
    }

private:
    quint64 m_state;
};

/// The offsets of the fields of an answer, after its header.
QList<int> fieldsOf(int command) {
    switch (command) {
    case Negotiate:
        return {0, 2, 4, 6, 24, 28, 32, 36, 40, 48, 56, 58, 60};
    case SessionSetup:
        return {0, 2, 4, 6};
    case TreeConnect:
        return {0, 2, 3, 4, 8, 12};
    case Create:
        return {0, 2, 3, 4, 8, 16, 24, 32, 40, 48, 56, 60, 64, 72, 80, 84};
    case Close:
        return {0, 2, 4, 8, 40, 48, 56};
    case Read:
        return {0, 2, 3, 4, 8, 12};
    case Write:
        return {0, 2, 4, 8, 12};
    case Ioctl:
        return {0, 4, 8, 24, 28, 32, 36, 40, 48, 52, 54, 56, 58, 60, 62, 64};
    case QueryDirectory:
        return {0, 2, 4};
    case QueryInfo:
        return {0, 2, 4, 8, 40, 48, 56, 64, 96, 100, 104};
    default:
        return {0, 2, 4};
    }
}

/// The offset of one of the entries of a listing, in the answer.
quint64 entryOf(Dice& dice, const QByteArray& message) {
    constexpr int firstEntry = headerSize + 8;
    qint64 at = firstEntry;
    for (quint64 i = dice.below(8); i > 0; --i) {
        const quint32 next = fieldOf<quint32>(message, at);
        if (next == 0)
            break;
        at += next;
    }
    return static_cast<quint64>(at);
}

quint64 valueFor(Dice& dice, const QByteArray& message) {
    const auto size = static_cast<quint64>(message.size());
    const quint64 some[] = {0,          1,
                            2,          3,
                            4,          7,
                            8,          9,
                            16,         31,
                            48,         63,
                            64,         65,
                            72,         0x7f,
                            0x80,       0xff,
                            0x100,      0xfff,
                            0x1000,     0x7fff,
                            0x8000,     0xffff,
                            0x10000,    0x10001,
                            0xffffff,   0x1000000,
                            0x7fffffff, 0x80000000,
                            0xfffffff0, 0xffffffff,
                            ~quint64{}, quint64{1} << 63};
    switch (dice.below(6)) {
    case 0:
        return dice.roll();
    case 1:
        return dice.below(256);
    case 2:
        return size - headerSize + dice.below(16) - 8;
    default:
        return dice.oneOf(some);
    }
}

quint64 statusFor(Dice& dice) {
    constexpr quint64 some[] = {
        0,          1,          0x103,      0x104,      0x10b,      0x80000005, 0x80000006,
        0x8000001a, 0xc0000001, 0xc0000002, 0xc0000008, 0xc000000d, 0xc000000f, 0xc0000011,
        0xc0000016, 0xc0000022, 0xc0000023, 0xc0000034, 0xc0000043, 0xc000007f, 0xc00000b5,
        0xc00000ba, 0xc00000c9, 0xc0000101, 0xc0000120, 0xc0000128, 0xc0000203, 0xc000020c,
        0xc0000275, 0xc000035c, 0xffffffff,
    };
    return dice.oneIn(8) ? dice.roll() : dice.oneOf(some);
}

void chooseField(Dice& dice, const RecordedAnswer& answer, Fault& fault) {
    constexpr quint64 sizes[] = {1, 2, 2, 4, 4, 4, 8};
    fault.change = Fault::Put;
    auto& [offset, size, value] = fault.arguments;
    size = dice.oneOf(sizes);
    value = valueFor(dice, answer.message);
    const bool isListing =
        answer.request.command == QueryDirectory && answer.message.size() > 2 * headerSize;
    if (isListing && !dice.oneIn(3)) {
        // The entry's length, its number, the length of its name, and the rest.
        constexpr quint64 fields[] = {0, 0, 4, 40, 56, 60, 60, 60, 64, 68, 72, 80, 94, 96, 104};
        offset = entryOf(dice, answer.message) + dice.oneOf(fields);
    } else {
        offset = headerSize + static_cast<quint64>(dice.oneOf(fieldsOf(answer.request.command)));
    }
}

void chooseHeaderField(Dice& dice, const RecordedAnswer& answer, Fault& fault) {
    struct Field {
        int offset;
        quint64 size;
    };
    constexpr Field fields[] = {
        {0, 4},
        {4, 2},
        {field::creditCharge, 2},
        {field::status, 4},
        {field::status, 4},
        {field::status, 4},
        {field::status, 4},
        {field::command, 2},
        {field::credits, 2},
        {field::credits, 2},
        {field::flags, 4},
        {field::nextCommand, 4},
        {field::nextCommand, 4},
        {field::messageId, 8},
        {field::asyncId, 8},
        {field::asyncId + 4, 4},
        {field::sessionId, 8},
        {48, 8},
    };
    const Field chosen = dice.oneOf(fields);
    fault.change = Fault::Put;
    fault.arguments[0] = static_cast<quint64>(chosen.offset);
    fault.arguments[1] = chosen.size;
    switch (chosen.offset) {
    case field::status:
        fault.arguments[2] = statusFor(dice);
        break;
    case field::messageId:
        fault.arguments[2] = dice.oneIn(2) ? dice.below(64) : valueFor(dice, answer.message);
        break;
    case field::command:
        fault.arguments[2] = dice.below(OplockBreak + 2);
        break;
    case field::flags:
        fault.arguments[2] = dice.oneIn(2) ? dice.below(16) : valueFor(dice, answer.message);
        break;
    default:
        fault.arguments[2] = valueFor(dice, answer.message);
    }
}

void chooseBytes(Dice& dice, const RecordedAnswer& answer, Fault& fault) {
    const auto size = static_cast<quint64>(answer.message.size());
    constexpr quint64 header = headerSize;
    // Mostly near the front, where the structures are.
    const quint64 range = dice.oneIn(2) ? std::min<quint64>(size, 2 * header) : size;
    const quint64 offset =
        dice.oneIn(4) ? dice.below(range) : header + dice.below(std::max(range, header) - header);
    constexpr Fault::Change kinds[] = {Fault::Put,    Fault::Put,   Fault::Fill, Fault::Flip,
                                       Fault::Insert, Fault::Erase, Fault::Cut,  Fault::Cut,
                                       Fault::Cut,    Fault::Grow};
    fault.change = dice.oneOf(kinds);
    fault.arguments[0] = offset;
    fault.arguments[1] = 1 + dice.below(dice.oneIn(4) ? 300 : 16);
    fault.arguments[2] = dice.oneIn(2) ? 0 : dice.below(256);
    if (fault.change == Fault::Put) {
        fault.arguments[1] = quint64{1} << dice.below(4);
        fault.arguments[2] = valueFor(dice, answer.message);
    } else if (fault.change == Fault::Grow) {
        fault.arguments[0] = 1 + dice.below(dice.oneIn(4) ? 70000 : 300);
        fault.arguments[1] = dice.below(256);
    } else if (fault.change == Fault::Cut && dice.oneIn(3)) {
        fault.arguments[0] = size - std::min<quint64>(size, 1 + dice.below(64));
    }
}

void chooseFrameFault(Dice& dice, const RecordedAnswer& answer, Fault& fault) {
    const auto size = static_cast<quint64>(answer.message.size());
    constexpr Fault::Change kinds[] = {Fault::Length,    Fault::Short,   Fault::Split,
                                       Fault::Drop,      Fault::Double,  Fault::Hold,
                                       Fault::Pending,   Fault::Unasked, Fault::Transform,
                                       Fault::Transform, Fault::Close};
    fault.change = dice.oneOf(kinds);
    auto& [first, second, third] = fault.arguments;
    switch (fault.change) {
    case Fault::Length:
        first = dice.oneIn(2) ? size + dice.below(64) - std::min<quint64>(32, size)
                              : valueFor(dice, answer.message);
        break;
    case Fault::Short:
    case Fault::Split:
        first = dice.below(dice.oneIn(2) ? size + prefixSize : 80);
        break;
    case Fault::Pending:
        first = 1 + dice.below(3);
        break;
    case Fault::Unasked:
        chooseHeaderField(dice, answer, fault);
        fault.change = Fault::Unasked;
        break;
    case Fault::Transform:
        first = dice.oneIn(2) ? 44 + dice.below(28) : dice.below(300);
        break;
    default:
        break;
    }
}

/// A fault in one of the answers of a recording.
Fault faultIn(Dice& dice, const Recording& recording) {
    // An operation first, as some have many more answers than others.
    const QByteArray operation =
        recording[static_cast<int>(dice.below(static_cast<quint64>(recording.size())))].operation;
    QList<int> answers;
    for (int i = 0; i < recording.size(); ++i) {
        if (recording[i].operation == operation)
            answers.append(i);
    }
    const int chosen = dice.oneOf(answers);
    const RecordedAnswer& answer = recording[chosen];
    Fault fault;
    fault.operation = operation;
    fault.command = answer.request.command;
    fault.number = static_cast<int>(std::count_if(answers.cbegin(), answers.cend(), [&](int i) {
        return i <= chosen && recording[i].request.command == answer.request.command;
    }));
    if (dice.oneIn(16))
        fault.number = 0;
    const quint64 layer = dice.below(20);
    if (layer < 2) {
        fault.change = Fault::Refuse;
        fault.arguments[0] = statusFor(dice);
    } else if (layer < 9) {
        chooseField(dice, answer, fault);
    } else if (layer < 13) {
        chooseHeaderField(dice, answer, fault);
    } else if (layer < 17) {
        chooseBytes(dice, answer, fault);
    } else {
        chooseFrameFault(dice, answer, fault);
    }
    return fault;
}

QList<QByteArray> operationsOf(const Recording& recording) {
    QList<QByteArray> operations;
    for (const RecordedAnswer& answer : recording) {
        if (!operations.contains(answer.operation))
            operations.append(answer.operation);
    }
    return operations;
}

void addFault(Dice& dice, Script& script) {
    const Fault fault = faultIn(dice, recordings()[script.dialect]);
    script.faults.append(fault);
    if (!script.operations.contains(fault.operation))
        script.operations.append(fault.operation);
}

} // namespace

Script Script::ofSeed(std::uint64_t seed) {
    Dice dice(seed);
    Script script;
    script.dialect = dice.oneOf(recordings().keys());
    script.operations.append("connect");
    const QList<QByteArray> all = operationsOf(recordings()[script.dialect]);
    for (quint64 i = dice.oneIn(3) ? 2 + dice.below(3) : 1; i > 0; --i)
        addFault(dice, script);
    // What the session does with the consequences.
    for (quint64 i = dice.below(4); i > 0; --i)
        script.operations.append(dice.oneOf(all));
    if (dice.oneIn(32))
        script.operations = all;
    return script;
}

Script Script::varied(std::uint64_t seed) const {
    Dice dice(seed);
    if (faults.isEmpty() || dice.oneIn(8))
        return ofSeed(dice.roll());
    Script script = *this;
    const int chosen = static_cast<int>(dice.below(static_cast<quint64>(faults.size())));
    Fault& fault = script.faults[chosen];
    const QList<QByteArray> all = operationsOf(recordings()[dialect]);
    switch (dice.below(7)) {
    case 0:
        script.dialect = dice.oneOf(recordings().keys());
        break;
    case 1:
        if (faults.size() > 1)
            script.faults.removeAt(chosen);
        else
            fault.number = static_cast<int>(dice.below(4));
        break;
    case 2:
        if (operations.size() < maxOperations)
            script.operations.append(dice.oneOf(all));
        break;
    case 3:
    case 4: {
        quint64& argument = fault.arguments[dice.below(std::size(fault.arguments))];
        argument = dice.oneIn(2) ? argument + dice.below(17) - 8 : valueFor(dice, QByteArray());
        break;
    }
    default:
        if (faults.size() < maxFaults)
            addFault(dice, script);
    }
    return script;
}

} // namespace oru::io::test
