// SPDX-License-Identifier: Apache-2.0
#include "places.h"

#include "failure.h"
#include "smblogin.h"
#include "smburl.h"

#include <oruio/fsnfs.h>
#include <oruio/fssmb.h>
#include <oruio/fsswitch.h>
#include <oruio/posixfs.h>

#include <QFile>
#include <QSettings>

namespace {

using namespace oru::io;

/// The time-out of requests to a server, in seconds. Longer would block the program's other places.
constexpr unsigned int timeout = 5;

template <class Location, class FileSystem>
std::unique_ptr<StorageLocation> makeLocation(const QString& name, QSharedPointer<FileSystem> fs,
                                              Properties props) {
    return std::make_unique<Location>(name.toUtf8().constData(), fs, &props);
}

SmbUrl parseShare(const QString& url) {
    try {
        return parseSmbUrl(url);
    } catch (const UsageError& error) { // the URL is not from the command line
        throw Failure{error.message};
    }
}

Place readPlace(const QSettings& section) {
    const QString name = section.group();
    const auto value = [&](const char* key) { return section.value(key).toString(); };
    const auto reject = [&](const QString& problem) {
        throw Failure{section.fileName() + ", [" + name + "]: " + problem};
    };

    Place place;
    place.directory = value("directory");
    if (!place.directory.startsWith('/'))
        reject("directory must be an absolute path");
    if (section.contains("device")) {
        place.location = makeLocation<SystemLocation>(name, PosixFS::SPtr::create(place.directory),
                                                      {{"blkDevId", value("device")}});
    } else if (section.contains("export")) {
        place.location = makeLocation<RemoteLocation>(name, NFS::SPtr::create(place.directory),
                                                      {{"target", value("export")}});
    } else if (section.contains("share")) {
        if (!isSmbUrl(value("share")))
            reject("share must be smb://...");
        const SmbUrl url = parseShare(value("share"));
        if (!url.directories.isEmpty())
            reject("share must be a whole share, without a directory");
        place.location =
            makeLocation<RemoteLocation>(name, Smb2FS::SPtr::create(timeout), loginTo(url));
    } else {
        reject("one of device, share and export must be there");
    }
    return place;
}

} // namespace

Places::Places(const QString& file, const QString& only) {
    if (!QFile::exists(file))
        throw Failure{"there is no file of locations " + file};
    QSettings settings(file, QSettings::IniFormat);
    settings.setIniCodec("UTF-8");
    for (const QString& name : settings.childGroups()) {
        if (!only.isEmpty() && name != only)
            continue;
        settings.beginGroup(name);
        m_places.push_back(readPlace(settings));
        settings.endGroup();
    }
    if (settings.status() != QSettings::NoError)
        throw Failure{file + ": not such a file"};
    for (const Place& place : m_places)
        FSSwitch::rootfs()->add(place.directory, place.location->fs());
}

Places::~Places() {
    for (const Place& place : m_places)
        FSSwitch::rootfs()->remove(place.directory);
}

const std::vector<Place>& Places::all() const {
    return m_places;
}
