// DebugCommands: the table of commands.
#include "service/DebugCommands.h"

#include <cstdint>

namespace SonarixService
{

const std::vector<DebugCommands::Command>& DebugCommands::Table()
{
    using C = DebugCommands;
    using A = Arguments;
    constexpr std::size_t kAny = SIZE_MAX;
    // Scripts depend on the texts of this table, so even errors in them stay. The key 9 is not used.
    static const std::vector<Command> s_commands = {
        {0, "sonarix ssdp list", "List discovered devices", "sonarix ssdp list", 0, 0,
         [](C& c, const A&) { return c.ListSsdp(); }},
        {1, "sonarix ssdp start", "Start discovery", "sonarix ssdp start", 0, 0,
         [](C& c, const A&) { return C::Start(*c.m_ssdp); }},
        {2, "sonarix ssdp stop", "Stop discovery", "sonarix ssdp stop", 0, 0,
         [](C& c, const A&) { return c.Stop(*c.m_ssdp); }},
        {4, "sonarix ssdp removedevice", "Delete device(s) from the list",
         "sonarix ssdp removedevice [ipaddress (example : sonarix mdns removedevice 1:1:1:1)]", 1, kAny,
         [](C& c, const A& arguments) { return c.RemoveDevice(*c.m_ssdp, arguments); }},
        {5, "sonarix ssdp adddevice", "Add device(s) to the list",
         "sonarix ssdp adddevice [ipaddress guid friendlyname ecosystem ....(example : sonarix "
         "ssdp adddevice ipaddress=1:1:1:1 friendlyname=testing guid=1111111111 ecosystem= orb2  "
         "modelname=wren modelnumber=1234 manufacturer=kova productcolor=white location=usa "
         "macaddress=12:212:21:21:12 devicetype=smarthome modeldescription=smarthome)]",
         1, kAny, [](C& c, const A& arguments) { return c.AddDevice(*c.m_ssdp, arguments); }},
        {3, "sonarix ssdp clearall", "Add device(s) to the list", "sonarix ssdp clearall", 0, 0,
         [](C& c, const A&) { return c.ClearSsdp(); }},
        {6, "sonarix mdns list", "List discovered devices", "sonarix mdns list [service<_kova-lanyard._tcp>]", 0, 1,
         [](C& c, const A& arguments) { return c.ListMdns(arguments); }},
        {7, "sonarix mdns start", "Start discovery", "sonarix mdns start", 0, 0,
         [](C& c, const A&) { return C::Start(*c.m_mdns); }},
        {8, "sonarix mdns stop", "Stop discovery", "sonarix mdns stop", 0, 0,
         [](C& c, const A&) { return c.Stop(*c.m_mdns); }},
        {12, "sonarix mdns clearall", "Clear all devices", "sonarix mdns clearall [service<_kova-lanyard._tcp>]", 0, 1,
         [](C& c, const A& arguments) { return c.ClearMdns(arguments); }},
        {14, "sonarix mdns adddevice", "Add device(s) to the list",
         "sonarix mdns adddevice [ipaddress guid friendlyname ecosystem ..... (example : sonarix "
         "mdns adddevice ipaddress=1:1:1:1 friendlyname=testing guid=1111111111ecosystem= orb2  "
         "modelname=wren modelnumber=1234 manufacturer=kova productcolor=white location=usa "
         "macaddress=12:212:21:21:12 devicetype=smarthome modeldescription=smarthome)]",
         1, kAny, [](C& c, const A& arguments) { return c.AddDevice(*c.m_mdns, arguments); }},
        {13, "sonarix mdns removedevice", "Remove ORB2 device(s) from the list",
         "sonarix mdns removedevice [ipaddress(example : sonarix mdns removedevice 1:1:1:1)]", 1, kAny,
         [](C& c, const A& arguments) { return c.RemoveDevice(*c.m_mdns, arguments); }},
        {10, "sonarix mdns addservice", "Add service to mdns record",
         "sonarix mdns addservice [name type domain guid manufacturer productcolor producttype "
         ".... (example : sonarix mdns addservice type=_kova_testing._tcp. name=testing1 "
         "domain=orb2 guid=11111 protuctcolor=black producttype=wren manufacturer=kova ecosystem= "
         "orb2  modelname=wren modelnumber=1234 manufacturer=kova productcolor=white location=usa "
         "macaddress=12:212:21:21:12 devicetype=smarthome modeldescription=smarthome)]",
         1, kAny, [](C& c, const A& arguments) { return c.AddService(arguments); }},
        {11, "sonarix mdns removeservice", "Remove service from mdns records",
         "sonarix mdns removeservice type[_kova_testing._tcp.]", 1, kAny,
         [](C& c, const A& arguments) { return c.RemoveService(arguments); }},
    };
    return s_commands;
}

} // namespace SonarixService
