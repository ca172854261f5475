// The exFAT driver that a recorder has, as far as mount(2) shows it: where the kernel has none of
// that name, its own one stands in.
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

/// Of types that it does not have, the kernel says so before it looks for the device.
bool isUfsdMissing() {
    static const bool isMissing =
        realMount()("none", "/", "ufsd", 0, nullptr) != 0 && errno == ENODEV;
    return isMissing;
}

} // namespace

// The program's own definition comes before that of the C library.
extern "C" Q_DECL_EXPORT int mount(const char* device, const char* directory, const char* type,
                                   unsigned long flags, const void* data) noexcept {
    if (!type || std::strcmp(type, "ufsd") != 0 || !isUfsdMissing())
        return realMount()(device, directory, type, flags, data);
    if (!data || std::strcmp(static_cast<const char*>(data), "nls=utf8") != 0) {
        errno = EINVAL; // there are no other options that both know
        return -1;
    }
    return realMount()(device, directory, "exfat", flags, "iocharset=utf8");
}
