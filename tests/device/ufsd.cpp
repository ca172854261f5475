// SPDX-License-Identifier: Apache-2.0
// Replaces mount() so that file systems of the type "ufsd" can be mounted: if the kernel has no
// such driver, its exFAT driver is used.
#include <QtGlobal>

#include <cerrno>
#include <cstring>

#include <dlfcn.h>
#include <sys/mount.h>

namespace {

using Mount = int(const char*, const char*, const char*, unsigned long, const void*);

Mount* realMount() {
    static auto* const real = reinterpret_cast<Mount*>(dlsym(RTLD_NEXT, "mount"));
    return real;
}

/// mount(2) fails with ENODEV for an unknown type before it looks up the device.
bool isUfsdMissing() {
    static const bool isMissing =
        realMount()("none", "/", "ufsd", 0, nullptr) != 0 && errno == ENODEV;
    return isMissing;
}

} // namespace

// The definition in the program takes precedence over the one in the C library.
extern "C" Q_DECL_EXPORT int mount(const char* device, const char* directory, const char* type,
                                   unsigned long flags, const void* data) noexcept {
    if (!type || std::strcmp(type, "ufsd") != 0 || !isUfsdMissing())
        return realMount()(device, directory, type, flags, data);
    if (!data || std::strcmp(static_cast<const char*>(data), "nls=utf8") != 0) {
        errno = EINVAL; // the drivers have no other option in common
        return -1;
    }
    return realMount()(device, directory, "exfat", flags, "iocharset=utf8");
}
