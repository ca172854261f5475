// Marks what liboruio.so exports; everything else in the library is hidden.
#pragma once

#define ORUIO_EXPORT __attribute__((visibility("default")))
