// SPDX-License-Identifier: Apache-2.0
// The messages that each bit of the debug mask enables. A process reads the mask once, when it
// starts.

#include "support/doubles/memfs.h"
#include "support/ipc/ipcservice.h"
#include "support/suite/logcapture.h"

#include <oruio/fsipc.h>
#include <oruio/ipc_server.h>

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

namespace oru::io {

namespace {

constexpr unsigned int always = 0;

struct Message {
    unsigned int bit;
    const char* string;
};

/// The messages of `all` that the mask enables, sorted.
QStringList expected(const std::vector<Message>& all) {
    const unsigned int mask = IPCShm::debugMask();
    QStringList strings;
    for (const Message& message : all) {
        if (message.bit == always || (message.bit & mask))
            strings += message.string;
    }
    // The order of messages from different threads varies.
    strings.sort();
    return strings;
}

/// The messages of one channel, sorted.
QStringList messagesOf(const QString& channel, const QStringList& messages) {
    QStringList strings;
    for (const QString& message : messages) {
        if (message.startsWith(channel + " 12 "))
            strings += message.section(' ', 2);
    }
    strings.sort();
    return strings;
}

} // namespace

TEST(IpcMask, DebugMask_SelectsTheLoggedMessages) {
    using namespace ipcwire;
    test::LogCapture log("fsipc=12,fsipcsrv=12");
    {
        IPCServer server(QSharedPointer<test::MemFS>::create());
        std::thread thread([&] { server.run(nullptr); });
        ASSERT_TRUE(test::eventually([&] { return server.state() == 2; }));
        IPCFS client;
        EXPECT_EQ(client.connect(1, nullptr), 0);
        struct stat st;
        EXPECT_EQ(client.stat("/missing", st), -1);
        EXPECT_EQ(client.stat("/", st), 0);
        client.disconnect();
        server.terminate();
        thread.join();
    }
    const QStringList messages = log.messages();
    const std::string record =
        "Send BufResponse 0,0,0 + " + std::to_string(sizeof(struct stat)) + " bytes";
    EXPECT_EQ(messagesOf("fsipc", messages),
              expected({{TraceLifecycle, "Client connecting"},
                        {TraceLifecycle, "Detected Server online"},
                        {TraceClient, "Send request 'connect'"},
                        {TraceClient, "Got response: '0,0,0'"},
                        {always, "IPC Client Ready"},
                        {TraceClient, "Send request 'stat /missing'"},
                        {TraceClient, "Got response: '-1,2,0'"},
                        {TraceClient, "Send request 'stat /'"},
                        {TraceClient, "Got response: '0,0,0'"},
                        {TraceClient, "Send request 'disconnect'"}}));
    EXPECT_EQ(messagesOf("fsipcsrv", messages),
              expected({{always, "Serving 'MemFS'"},
                        {TraceLifecycle, "IPC Server initializing"},
                        {TraceLifecycle, "Create new FSShm: OK"},
                        {TraceLifecycle, "Initialize FSShm"},
                        {TraceLifecycle, "FSShm ready for use"},
                        {TraceLifecycle, "Session reset OK"},
                        {always, "IPC Server Ready"},
                        {TraceServer, "Wait for request"},
                        {TraceServer, "Process 'connect'"},
                        {TraceServer, "Send response '0,0,0'"},
                        {TraceLifecycle, "Client connected OK"},
                        {TraceServer, "Wait for request"},
                        {TraceServer, "Process 'stat'"},
                        {TraceServer, "Send response '-1,2,0'"},
                        {TraceServer, "Wait for request"},
                        {TraceServer, "Process 'stat'"},
                        {TraceServer, record.c_str()},
                        {TraceServer, "Wait for request"},
                        {TraceServer, "Process 'disconnect'"},
                        {TraceServer, "Send response '0,0,0'"},
                        {TraceLifecycle, "Session reset OK"},
                        {TraceServer, "Wait for request"},
                        {always, "Terminate server"},
                        {always, "IPC Server stopping"},
                        {TraceServer, "Send response '-1,125,0'"},
                        {always, "IPC Server stopped"}}));
}

} // namespace oru::io
