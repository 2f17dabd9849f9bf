// The environment, read once at start-up into Paths and Services: the only place any KESTREL_*
// variable is read.
#pragma once

#include "core/system/Paths.h"
#include "core/system/Services.h"

namespace kestrel::Environment {

// HOME when set and absolute, else the password database's entry for the current user; the
// `XDG_*_HOME` variables that hold absolute paths; KESTREL_LAYOUT ("macos" or "linux", else the
// host's table); KESTREL_SYSTEM_ROOT for "/" where the system's own folders are read (crash
// reports); KESTREL_VOLUMES_ROOT, below which other volumes' Trash folders are looked for ("/").
Paths paths();

// The real services, with KESTREL_SHRED_DEBOUNCE_SECONDS and KESTREL_SHRED_TICK_SECONDS (positive
// numbers of seconds) in place of the Shredder watcher's quiet time and timer.
Services services();

}  // namespace kestrel::Environment
