// The files that the benchmarks work on.
#pragma once

#include <oruio/fdadapter.h>
#include <oruio/fsswitch.h>

#include <QTemporaryDir>

#include <string>

/// A directory on the disk that stands for a memory card, in one of eight places of a mount switch.
class Card {
public:
    /// The one card, made on first use and removed at the end of the program.
    static Card& instance();

    /// Served by the switch, through the mount that its lookup tries last.
    oru::io::FDAdapter& adapter();
    /// A clip of 2 MiB, as the adapter and as the system know it.
    const char* clip() const;
    const char* systemClip() const;

private:
    Card();

    QTemporaryDir m_root;
    std::string m_systemClip;
    oru::io::FSSwitch::SPtr m_switch;
    oru::io::FDAdapter m_adapter;
};
