#include "service/DebugCommandTable.h"

namespace SonarixService
{

const std::vector<DebugCommand>& DebugCommandTable()
{
    // The texts are what people and their scripts know, and stay as they are.
    static const std::vector<DebugCommand> s_commands = {
        {SSDP_LIST, "sonarix ssdp list", "List discovered devices", "sonarix ssdp list"},
        {SSDP_START, "sonarix ssdp start", "Start discovery", "sonarix ssdp start"},
        {SSDP_STOP, "sonarix ssdp stop", "Stop discovery", "sonarix ssdp stop"},
        {SSDP_REMOVEDEVICE, "sonarix ssdp removedevice", "Delete device(s) from the list",
         "sonarix ssdp removedevice [ipaddress (example : sonarix mdns removedevice 1:1:1:1)]"},
        {SSDP_ADDDEVICE, "sonarix ssdp adddevice", "Add device(s) to the list",
         "sonarix ssdp adddevice [ipaddress guid friendlyname ecosystem ....(example : sonarix "
         "ssdp adddevice ipaddress=1:1:1:1 friendlyname=testing guid=1111111111 ecosystem= orb2  "
         "modelname=wren modelnumber=1234 manufacturer=kova productcolor=white location=usa "
         "macaddress=12:212:21:21:12 devicetype=smarthome modeldescription=smarthome)]"},
        {SSDP_CLEARALL, "sonarix ssdp clearall", "Add device(s) to the list", "sonarix ssdp clearall"},
        {MDNS_LIST, "sonarix mdns list", "List discovered devices", "sonarix mdns list [service<_kova-lanyard._tcp>]"},
        {MDNS_START, "sonarix mdns start", "Start discovery", "sonarix mdns start"},
        {MDNS_STOP, "sonarix mdns stop", "Stop discovery", "sonarix mdns stop"},
        {MDNS_CLEARALL, "sonarix mdns clearall", "Clear all devices",
         "sonarix mdns clearall [service<_kova-lanyard._tcp>]"},
        {MDNS_ADDDEVICE, "sonarix mdns adddevice", "Add device(s) to the list",
         "sonarix mdns adddevice [ipaddress guid friendlyname ecosystem ..... (example : sonarix "
         "mdns adddevice ipaddress=1:1:1:1 friendlyname=testing guid=1111111111ecosystem= orb2  "
         "modelname=wren modelnumber=1234 manufacturer=kova productcolor=white location=usa "
         "macaddress=12:212:21:21:12 devicetype=smarthome modeldescription=smarthome)]"},
        {MDNS_REMOVEDEVICE, "sonarix mdns removedevice", "Remove ORB2 device(s) from the list",
         "sonarix mdns removedevice [ipaddress(example : sonarix mdns removedevice 1:1:1:1)]"},
        {MDNS_ADDSERVICE, "sonarix mdns addservice", "Add service to mdns record",
         "sonarix mdns addservice [name type domain guid manufacturer productcolor producttype "
         ".... (example : sonarix mdns addservice type=_kova_testing._tcp. name=testing1 "
         "domain=orb2 guid=11111 protuctcolor=black producttype=wren manufacturer=kova ecosystem= "
         "orb2  modelname=wren modelnumber=1234 manufacturer=kova productcolor=white location=usa "
         "macaddress=12:212:21:21:12 devicetype=smarthome modeldescription=smarthome)]"},
        {MDNS_REMOVESERVICE, "sonarix mdns removeservice", "Remove service from mdns records",
         "sonarix mdns removeservice type[_kova_testing._tcp.]"},
    };
    return s_commands;
}

} // namespace SonarixService
