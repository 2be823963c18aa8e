#pragma once

#include "http/IHttpInterface.h"

#include <cstddef>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

/// A scripted HTTP engine: a GET is stored until the test answers it. Settings are recorded; other requests do nothing.
///
///     FakeHttp http;
///     ...
///     http.Answer(0, 200, "<root/>");
class FakeHttp : public IHttpInterface
{
public:
    OpHandle Get(const std::string& url, const ResponseCallback& callback, std::uint32_t, const std::string&,
                 std::uint32_t, std::uint32_t, const Http::Headers&) override
    {
        if (m_hasNoThread)
        {
            throw std::system_error(std::make_error_code(std::errc::resource_unavailable_try_again));
        }
        m_urls.push_back(url);
        m_callbacks.push_back(callback);
        return nullptr;
    }
    void Answer(std::size_t number, int status, const std::string& body = "", int curlStatus = 0)
    {
        Http::HSMResponse response;
        response.url = m_urls.at(number);
        response.status = status;
        response.curlStatus = curlStatus;
        response.body = body;
        std::exchange(m_callbacks.at(number), {})(response);
    }

    std::vector<std::string> m_urls;
    std::vector<ResponseCallback> m_callbacks;
    std::vector<std::string> m_settings;
    bool m_hasNoThread = false;

    // clang-format off
    void SetRetries(int retries) override { Note("retries", static_cast<std::size_t>(retries)); }
    void SetTimeout(int seconds) override { Note("timeout", static_cast<std::size_t>(seconds)); }
    void SetMaxResponseBytes(std::size_t bytes) override { Note("bytes", bytes); }
    void SetMaxSleepingRequests(std::size_t count) override { Note("sleeping", count); }
    using Text = const std::string&;
    using Number = std::uint32_t;
    OpHandle PostBinaryData(Text, const Http::Bytes&, Text, const ResponseCallback&, Number, Text, Number, Number, const Http::Headers&) override { return {}; }
    OpHandle Post(Text, Text, Text, const ResponseCallback&, Number, Text, Number, Number, const Http::Headers&) override { return {}; }
    OpHandle Put(Text, Text, Text, const ResponseCallback&, Number, Text, Number, Number, const Http::Headers&) override { return {}; }
    OpHandle Delete(Text, Text, const ResponseCallback&, Number, Text, Number, Number, const Http::Headers&) override { return {}; }
    OpHandle Delete(Text, Text, const ResponseCallback&, Number, Text, Number, Number, const Http::Headers&, const std::vector<int>&) override { return {}; }
    OpHandle GetUrlAsFile(Text, Text, const ResponseCallback&, Number, Text, Number, Number, const Http::Headers&) override { return {}; }
    int GetRetries() const override { return 0; }
    int GetRetryDelay() const override { return 0; }
    void SetFollowRedirects(bool) override { Note("redirects", 1); }
    void SetRateLimitHandling(bool) override {}
    void SetDefaultRetryValue(unsigned) override {}
    void SetRetryType(int) override {}
    void DisableRetries() override {}
    void EnableRetries() override {}
    void SetRetryDelay(int) override {}
    void SetMaxRetryValue(unsigned) override {}
    void SetReserved(int) override {}
    void Reserved() override {}
    void SetRetryBackoff(const std::vector<int>&, bool) override {}
    void SetRetryStatusCodes(const std::vector<int>&) override {}
    void SetRetryOnAnyStatus(bool) override {}
    void DiscardRequests() override {}
    // clang-format on

private:
    void Note(const char* setting, std::size_t value)
    {
        m_settings.push_back(std::string(setting) + " " + std::to_string(value));
    }
};
