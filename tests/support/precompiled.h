// SPDX-License-Identifier: Apache-2.0
// Precompiled for all test programs: what most of them include, and what takes long to compile. A
// source includes what it uses all the same.
#pragma once

#include <oruio/fs.h>

#include <QByteArray>
#include <QDir>
#include <QMap>
#include <QSharedPointer>
#include <QString>
#include <QStringList>
#include <QVariant>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>
