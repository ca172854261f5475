// SPDX-License-Identifier: Apache-2.0
#include "support/system/monitorbatches.h"

#include <gtest/gtest.h>

#include <utility>

namespace oru::io::test {

MonitorBatches::MonitorBatches()
    : m_connection(QObject::connect(
          BDMon::instance(), &BDMon::notify,
          [this](BDMon::EventListSPtr events, BDMon::EventListByDeviceSPtr eventsByDevice) {
              m_batches.append({events, eventsByDevice});
          })) {}

MonitorBatches::~MonitorBatches() {
    QObject::disconnect(m_connection);
    BDMon::instance()->stop();
}

Batch MonitorBatches::start() {
    m_batches.clear();
    BDMon::instance()->start();
    EXPECT_TRUE(BDMon::instance()->isRunning());
    return takeOnly();
}

Batch MonitorBatches::update() {
    m_batches.clear();
    EXPECT_EQ(BDMon::instance()->update(0), 0);
    return takeOnly();
}

Batch MonitorBatches::takeOnly() {
    EXPECT_LE(m_batches.size(), 1);
    return std::exchange(m_batches, {}).value(0);
}

} // namespace oru::io::test
