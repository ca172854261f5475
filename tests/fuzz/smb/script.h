// SPDX-License-Identifier: Apache-2.0
// An input of the fuzzer of answers: what a client does, and what is wrong with the answers.
//
// The first line has the dialect and the operations of a ShareClient. Each other line has one
// fault: the operation, the command of the answer and its number among the answers to this command
// in this operation, then a change and its arguments. "any" stands for any operation or command,
// the number 0 for each answer.
//
//     3.1.1 stat small
//     stat query_info 1 put 8 4 0xc0000011
//     small query_directory 2 cut 70
//
// Changes of a message (offsets and sizes in bytes, 64 is the end of the header):
//
//     put OFFSET SIZE VALUE       sets a field of 1, 2, 4 or 8 bytes
//     fill OFFSET SIZE BYTE       sets bytes
//     flip OFFSET BIT             flips a bit
//     insert OFFSET SIZE BYTE     inserts bytes
//     erase OFFSET SIZE           removes bytes
//     cut SIZE                    shortens the message
//     grow SIZE BYTE              appends bytes
//     refuse STATUS               replaces it by an error
//
// Changes of the frame that contains the message:
//
//     length VALUE                the length in its prefix
//     short SIZE                  ends the connection after these bytes of it
//     split SIZE                  sends it in two parts
//     drop                        does not send it
//     double                      sends it twice
//     hold                        sends it after the next one
//     pending COUNT               sends so many interim answers first
//     unasked OFFSET SIZE VALUE   sends a copy first, with a field set
//     transform SIZE              sends a frame of this size first, with a transform header
//     close                       ends the connection instead
#pragma once

#include "fuzz/smb/recording.h"

#include <QByteArray>
#include <QList>

#include <cstdint>
#include <string>

namespace oru::io::test {

struct Fault {
    enum Change {
        Put,
        Fill,
        Flip,
        Insert,
        Erase,
        Cut,
        Grow,
        Refuse,
        Length, // the first one that concerns the frame
        Short,
        Split,
        Drop,
        Double,
        Hold,
        Pending,
        Unasked,
        Transform,
        Close,
    };

    QByteArray operation; ///< "any" for any
    int command = -1;     ///< a smb2::Command; -1 for any
    int number = 1;       ///< counts from 1; 0 for each
    Change change = Drop;
    quint64 arguments[3] = {};

    bool concernsFrame() const {
        return change >= Length;
    }
    /// Changes a message. For faults that do not concern the frame.
    void apply(QByteArray& message) const;
};

struct Script {
    QByteArray dialect;
    QList<QByteArray> operations;
    QList<Fault> faults;

    /// The first lines of an input; words that are not understood are ignored.
    static Script parsed(const std::uint8_t* input, std::size_t size);
    /// The script of a seed.
    static Script ofSeed(std::uint64_t seed);
    /// A copy with one change, such as one more fault.
    Script varied(std::uint64_t seed) const;
    std::string toString() const;
};

} // namespace oru::io::test
