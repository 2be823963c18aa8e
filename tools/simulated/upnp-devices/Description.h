#pragma once

#include "tools/simulated/Identity.h"
#include "tools/simulated/upnp-devices/HttpFace.h"
#include "tools/simulated/upnp-devices/Kinds.h"

#include <string>

/// What a device's web server answers to a request of this path.
HttpAnswer AnswerOf(Kind kind, const Identity& identity, const std::string& path);

/// The text behind "LOCATION:" of its messages.
std::string LocationOf(Kind kind, const Identity& identity, std::uint16_t port);
