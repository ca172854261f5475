// Mounts that only this program sees.
#pragma once

/// Gives the calling process mounts of its own, with an empty memory file system on /dev/shm: what
/// it and the programs that it starts do there meets nobody else's, and is gone with the last of
/// them. Takes a privileged user. \returns whether it worked; if not, nothing is different. May be
/// called between fork(2) and exec(3).
bool enterPrivateMounts();

/// The same for this process, on the first call. \returns whether it worked then.
bool hasPrivateMounts();
