// SPDX-License-Identifier: Apache-2.0
#include "smblogin.h"

#include "password.h"

oru::io::Properties loginTo(const SmbUrl& url) {
    oru::io::Properties login;
    login["server"] = url.server;
    login["share"] = url.share;
    if (url.user.isEmpty())
        return login;
    login["domain"] = url.domain;
    login["user"] = url.user;
    login["password"] = obtainPassword(url.user + " on " + url.server);
    return login;
}
