// SPDX-License-Identifier: Apache-2.0
/// \file
/// Symbol visibility: liboruio.so exports what is marked ORUIO_EXPORT and hides everything else.
#pragma once

/// Exports a class, function or variable from liboruio.so.
#define ORUIO_EXPORT __attribute__((visibility("default")))
/// Hides a class or a function that is a member of an exported class.
#define ORUIO_LOCAL __attribute__((visibility("hidden")))
