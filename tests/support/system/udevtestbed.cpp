// SPDX-License-Identifier: Apache-2.0
#include "support/system/udevtestbed.h"

#include <QByteArrayList>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QVector>

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <vector>

#include <linux/fs.h>
#include <umockdev.h>

namespace oru::io::test {

namespace {

struct GFree {
    void operator()(void* memory) const {
        g_free(memory);
    }
    void operator()(UMockdevTestbed* testbed) const {
        g_object_unref(testbed);
    }
    void operator()(UMockdevIoctlBase* handler) const {
        g_object_unref(handler);
    }
    void operator()(UMockdevIoctlData* data) const {
        g_object_unref(data);
    }
};

template <class T>
using GPtr = std::unique_ptr<T, GFree>;

/// A null-terminated array of strings: key, value, key, value ...
class StringArray {
public:
    explicit StringArray(const UdevTestbed::StringMap& strings) {
        for (auto it = strings.begin(); it != strings.end(); ++it)
            m_bytes << it.key().toUtf8() << it.value().toUtf8();
        for (QByteArray& bytes : m_bytes)
            m_pointers.append(bytes.data());
        m_pointers.append(nullptr);
    }

    char** get() {
        return m_pointers.data();
    }

private:
    QByteArrayList m_bytes;
    QVector<char*> m_pointers;
};

/// Completes an ioctl: stores `value` where its argument points; without a value it fails with
/// ENOTTY.
template <class T>
void answer(UMockdevIoctlClient* client, const std::optional<T>& value) {
    if (!value) {
        umockdev_ioctl_client_complete(client, -1, ENOTTY);
        return;
    }
    T copy = *value;
    const GPtr<UMockdevIoctlData> place(umockdev_ioctl_data_resolve(
        umockdev_ioctl_client_get_arg(client), 0, sizeof copy, nullptr));
    umockdev_ioctl_data_update(place.get(), 0, reinterpret_cast<guint8*>(&copy), sizeof copy);
    umockdev_ioctl_client_complete(client, 0, 0);
}

gboolean handleIoctl(UMockdevIoctlBase*, UMockdevIoctlClient* client, gpointer user) {
    const auto* const node = static_cast<const UdevTestbed::Node*>(user);
    switch (umockdev_ioctl_client_get_request(client)) {
    case BLKPBSZGET:
        answer(client, node->physicalBlockSize);
        return TRUE;
    case BLKGETSIZE64:
        answer(client, node->bytes);
        return TRUE;
    default:
        return FALSE;
    }
}

/// A node with ioctl results.
struct Answerer {
    QByteArray path;
    UdevTestbed::Node node;
    GPtr<UMockdevIoctlBase> handler;
};

} // namespace

class UdevTestbed::Data {
public:
    /// Creates an empty file for a node. umockdev treats a node that cannot be opened as open.
    void makeNode(const QString& path) {
        const GPtr<char> root(umockdev_testbed_get_root_dir(testbed.get()));
        QFile file(QString::fromUtf8(root.get()) + path);
        if (!QDir().mkpath(QFileInfo(file).path()) || !file.open(QFile::WriteOnly))
            std::abort();
    }

    // Declared first: the thread of the testbed uses them.
    std::vector<std::unique_ptr<Answerer>> answerers;
    const GPtr<UMockdevTestbed> testbed{umockdev_testbed_new()};
};

UdevTestbed::UdevTestbed() : m_data(new Data) {}

UdevTestbed::~UdevTestbed() {
    for (const auto& answerer : m_data->answerers)
        umockdev_testbed_detach_ioctl(m_data->testbed.get(), answerer->path.constData(), nullptr);
}

int UdevTestbed::queueLength() {
    QFile limit(QStringLiteral("/proc/sys/net/unix/max_dgram_qlen"));
    return limit.open(QFile::ReadOnly) ? limit.readAll().trimmed().toInt() : 0;
}

QString UdevTestbed::add(const QString& subsystem, const QString& name, const QString& parent,
                         const StringMap& properties) {
    if (properties["DEVNAME"].startsWith("/dev/"))
        m_data->makeNode(properties["DEVNAME"]);
    StringArray attributes({});
    StringArray all(properties);
    const GPtr<char> path(umockdev_testbed_add_devicev(
        m_data->testbed.get(), qPrintable(subsystem), qPrintable(name),
        parent.isEmpty() ? nullptr : qPrintable(parent), attributes.get(), all.get()));
    return QString::fromUtf8(path.get());
}

QString UdevTestbed::addDisk(const QString& name, const QString& idPath,
                             const StringMap& properties) {
    StringMap all = properties;
    if (!all.contains("DEVNAME"))
        all["DEVNAME"] = "/dev/" + name;
    all["DEVTYPE"] = "disk";
    if (!idPath.isEmpty())
        all["ID_PATH"] = idPath;
    return add("block", name, {}, all);
}

QString UdevTestbed::addPartition(const QString& disk, int number, const StringMap& properties) {
    const QString diskName = disk.section('/', -1);
    const QString name =
        diskName + (diskName.back().isDigit() ? "p" : "") + QString::number(number);
    StringMap all = properties;
    all["DEVNAME"] = "/dev/" + name;
    all["DEVTYPE"] = "partition";
    all["PARTN"] = QString::number(number);
    const GPtr<char> idPath(
        umockdev_testbed_get_property(m_data->testbed.get(), qPrintable(disk), "ID_PATH"));
    if (idPath)
        all["ID_PATH"] = QString::fromUtf8(idPath.get());
    return add("block", name, disk, all);
}

QString UdevTestbed::addOther(const QString& subsystem, const QString& name,
                              const QString& idPath) {
    return add(subsystem, name, {}, {{"ID_PATH", idPath}});
}

void UdevTestbed::setNode(const QString& path, const Node& node) {
    m_data->makeNode(path);
    auto answerer = std::make_unique<Answerer>();
    answerer->path = path.toUtf8();
    answerer->node = node;
    answerer->handler.reset(umockdev_ioctl_base_new());
    g_signal_connect(answerer->handler.get(), "handle-ioctl", G_CALLBACK(handleIoctl),
                     &answerer->node);
    if (!umockdev_testbed_attach_ioctl(m_data->testbed.get(), answerer->path.constData(),
                                       answerer->handler.get(), nullptr))
        std::abort();
    m_data->answerers.push_back(std::move(answerer));
}

void UdevTestbed::setAttribute(const QString& device, const QString& name, const QString& value) {
    umockdev_testbed_set_attribute(m_data->testbed.get(), qPrintable(device), qPrintable(name),
                                   qPrintable(value));
}

void UdevTestbed::setProperty(const QString& device, const QString& name, const QString& value) {
    umockdev_testbed_set_property(m_data->testbed.get(), qPrintable(device), qPrintable(name),
                                  qPrintable(value));
}

void UdevTestbed::send(const QString& device, const char* action) {
    umockdev_testbed_uevent(m_data->testbed.get(), qPrintable(device), action);
}

void UdevTestbed::remove(const QString& device) {
    umockdev_testbed_remove_device(m_data->testbed.get(), qPrintable(device));
}

} // namespace oru::io::test
