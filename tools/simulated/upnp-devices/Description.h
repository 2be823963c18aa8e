#pragma once

#include "tools/simulated/Identity.h"
#include "tools/simulated/upnp-devices/FakeHttpServer.h"
#include "tools/simulated/upnp-devices/Kinds.h"

#include <string>

/// The response of a device's HTTP server to a request of this path.
HttpResponse AnswerOf(Kind kind, const Identity& identity, const std::string& path);

/// The value of the LOCATION header in a device's messages.
std::string LocationOf(Kind kind, const Identity& identity, std::uint16_t port);
