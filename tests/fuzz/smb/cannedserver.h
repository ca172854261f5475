// SPDX-License-Identifier: Apache-2.0
// A server that answers requests as a real one did, apart from the faults of a script.
#pragma once

#include "fuzz/smb/inprocessserver.h"
#include "fuzz/smb/message.h"
#include "fuzz/smb/script.h"
#include "fuzz/smb/shareclient.h"

#include <QByteArray>
#include <QList>
#include <QMap>
#include <QPair>

namespace oru::io::test {

/// An answer is found by its operation and its request. The server closes the connection when it
/// has no answer.
class CannedServer : public InProcessServer, public Witness {
public:
    explicit CannedServer(const Script& script);

    void beginOperation(const QByteArray& operation) override;
    void beginCall() override;
    bool isGranted() const override;
    bool hasRead(qint64 count) const override;
    bool hasWritten(qint64 count) const override;
    bool hasWrittenNothing() const override;
    bool hasListed() const override;
    bool hasLink() const override;
    bool hasConnected() const override;

    bool connectClient(int client) override;

protected:
    void answer(const QByteArray& frame) override;
    void idle() override;

private:
    QList<QByteArray> answersTo(const Request& request) const;
    QList<QByteArray> answersTo(int command) const;
    bool hasGranted(int command) const;
    template <class Found>
    bool hasTransferred(int command, Found found) const;
    const RecordedAnswer* find(const Request& request);
    QList<Fault> faultsOf(const Request& request);
    void deliver(QByteArray frame, const QList<Fault>& faults);
    void transmit(const QByteArray& bytes, int part = 0);

    const Script& m_script;
    const Recording& m_recording;
    QByteArray m_operation;
    QMap<QPair<quint16, quint16>, int> m_next; // where to search for the next answer to a request
    QMap<int, int> m_counts;                   // answers of the operation, by command; -1: all
    int m_answered = 0;                        // in the session
    QList<QByteArray> m_held;
    // Since beginCall():
    QList<Request> m_requests;
    QList<QByteArray> m_answers; // as sent, without interim ones
};

} // namespace oru::io::test
