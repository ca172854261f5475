// SPDX-License-Identifier: Apache-2.0
// The files that the benchmarks work on.
#pragma once

#include <oruio/fdadapter.h>
#include <oruio/fsswitch.h>

#include <QTemporaryDir>

#include <string>

/// A directory on the disk that represents a memory card, at one of eight mount points of a switch.
class Card {
public:
    /// The only card, created on first use and removed at the end of the program.
    static Card& instance();

    /// On the switch. A lookup compares the card's mount point last.
    oru::io::FDAdapter& adapter();
    /// The path of a clip of 2 MiB, in the adapter and in the system.
    const char* clip() const;
    const char* systemClip() const;

private:
    Card();

    QTemporaryDir m_root;
    std::string m_systemClip;
    oru::io::FSSwitch::SPtr m_switch;
    oru::io::FDAdapter m_adapter;
};
