// Marks what liboruio.so exports; everything else in the library is hidden.
#pragma once

#define ORUIO_EXPORT __attribute__((visibility("default")))
/// For a class within an exported one that stays inside the library.
#define ORUIO_LOCAL __attribute__((visibility("hidden")))
