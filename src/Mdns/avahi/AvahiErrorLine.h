#pragma once

#include "runtime/DPrint.h"

#include <avahi-common/error.h>

/// Logs a failed Avahi call with file and line of the call, so that a log from the field identifies it. `call` is the
/// name of the Avahi function, `code` the Avahi error code.
#define AVAHI_ERROR_LINE(channel, call, code)                                                                          \
    DPRINTF((channel), DPrint::LEVEL_ERROR, "%s: %s at %s line %d", (call), avahi_strerror(code), __FILE_NAME__,       \
            __LINE__)
