#pragma once

#include "runtime/DPrint.h"

#include <avahi-common/error.h>

/// The one line for an Avahi call that failed, with the place of the call: by it a log from the field points at
/// one call. `call` is the call's name, `code` the Avahi error code.
#define AVAHI_ERROR_LINE(channel, call, code)                                                                          \
    DPRINTF((channel), DPrint::LEVEL_ERROR, "%s: %s at %s line %d", (call), avahi_strerror(code), __FILE_NAME__,       \
            __LINE__)
