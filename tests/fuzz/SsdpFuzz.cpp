/// Passes datagrams through AnnouncementFilter to the real resource browser.
///
/// An input is a sequence of datagrams, each ended by a NUL, which also ends a datagram for the library. The first byte
/// of each selects the sender, and whether a new search begins before it.
#include "ssdp/AnnouncementFilter.h"
#include "ssdp/GlibLog.h"
#include "ssdp/MessageInterceptor.h"
#include "tests/fuzz/FuzzChecks.h"

#include <libgssdp/gssdp.h>
#include <libsoup/soup.h>

#include <array>
#include <cstdlib>
#include <memory>
#include <sched.h>
#include <set>
#include <string>
#include <string_view>

using namespace SonarixService;
using Fuzz::Require;

namespace
{

const char* const kTargets[] = {"urn:schemas-upnp-org:device:MediaRenderer:1", "ssdp:all"};
const char* const kSenders[] = {"10.77.0.2", "10.77.0.3", "10.77.0.1", "192.168.1.1"};

InterfaceAddresses Addresses()
{
    return {{{*ParseIPv4("10.77.0.1"), 0xFFFFFF00}}, {*ParseIPv4("10.77.0.1")}};
}

/// An inactive client in a new network namespace, with the filter and a browser.
struct Browser
{
    Browser()
    {
        Require(unshare(CLONE_NEWNET) == 0, "no network namespace: run it as root");
        Require(std::system("ip link set lo up") == 0, "ip");
        Fuzz::Log("3");
        GlibLog::Install();
        GError* error = nullptr;
        client = gssdp_client_new_full("lo", nullptr, 0, GSSDP_UDA_VERSION_1_0, &error);
        Require(client != nullptr, "no client");
        g_object_set(client, "active", FALSE, nullptr);
        interceptor = std::make_unique<MessageInterceptor>(client, filter);
        Require(interceptor->IsConnected(), "no signal");
        browser = gssdp_resource_browser_new(client, "ssdp:all");
        g_signal_connect(browser, "resource-available", G_CALLBACK(&Browser::OnAvailable), this);
        g_signal_connect(browser, "resource-unavailable", G_CALLBACK(&Browser::OnUnavailable), this);
    }

    static void OnAvailable(GSSDPResourceBrowser*, const char* usn, GList* locations, gpointer self)
    {
        static_cast<Browser*>(self)->known.insert(usn);
        Require(std::string_view(usn).starts_with("uuid:"), "a USN of another form");
        Require(locations != nullptr, "no location");
        for (; locations != nullptr; locations = locations->next)
        {
            const std::string_view location = static_cast<const char*>(locations->data);
            Require(location.starts_with("http://10.77.0.") || location.starts_with("https://10.77.0."),
                    "a bad LOCATION");
        }
    }
    static void OnUnavailable(GSSDPResourceBrowser*, const char* usn, gpointer self)
    {
        static_cast<Browser*>(self)->known.erase(usn);
    }

    void Restart(const char* target)
    {
        gssdp_resource_browser_set_active(browser, FALSE);
        known.clear();
        filter.Restart(target, Addresses());
        gssdp_resource_browser_set_target(browser, target);
        gssdp_resource_browser_set_active(browser, TRUE);
    }

    /// Parses a datagram like GSSDPClient.
    void Receive(const char* sender, const std::string& datagram)
    {
        const Fuzz::TimeLimit limit;
        const std::size_t end = datagram.find("\r\n\r\n");
        if (end == std::string::npos)
        {
            return;
        }
        const int length = static_cast<int>(end + 2);
        char* method = nullptr;
        char* path = nullptr;
        SoupHTTPVersion version{};
        guint status = 0;
        int type = -1;
        SoupMessageHeaders* headers = soup_message_headers_new(SOUP_MESSAGE_HEADERS_REQUEST);
        if (soup_headers_parse_request(datagram.c_str(), length, headers, &method, &path, &version) == SOUP_STATUS_OK &&
            version == SOUP_HTTP_1_1 && path != nullptr && *path == '*')
        {
            type = std::string_view(method) == "NOTIFY" ? 2 : 0;
        }
        else
        {
            soup_message_headers_unref(headers);
            headers = soup_message_headers_new(SOUP_MESSAGE_HEADERS_RESPONSE);
            if (soup_headers_parse_response(datagram.c_str(), length, headers, nullptr, &status, nullptr) != FALSE &&
                status == SOUP_STATUS_OK)
            {
                type = 1;
            }
        }
        if (type >= 0)
        {
            g_signal_emit_by_name(client, "message-received", sender, 1900U, type, headers);
        }
        soup_message_headers_unref(headers);
        g_free(method);
        g_free(path);
        Require(known.size() <= std::size_t{4} * AnnouncementFilter::kMaxUsnsOfSender,
                "more USNs than four senders may have");
    }

    GSSDPClient* client = nullptr;
    AnnouncementFilter filter;
    std::unique_ptr<MessageInterceptor> interceptor;
    GSSDPResourceBrowser* browser = nullptr;
    std::set<std::string> known;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size)
{
    static Browser s_browser;
    s_browser.Restart(kTargets[0]);
    std::string_view rest(reinterpret_cast<const char*>(data), size);
    while (rest.size() > 1)
    {
        const auto choice = static_cast<unsigned char>(rest.front());
        const std::size_t end = std::min(rest.find('\0', 1), rest.size());
        if (choice % 16 >= 14)
        {
            s_browser.Restart(kTargets[choice % 2]);
        }
        s_browser.Receive(kSenders[choice % 4], std::string(rest.substr(1, end - 1)));
        rest.remove_prefix(std::min(end + 1, rest.size()));
    }
    return 0;
}
