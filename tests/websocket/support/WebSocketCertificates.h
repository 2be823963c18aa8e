#pragma once

#include "tests/support/TempDirectory.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

/// A certification authority in a temporary directory. Uses the openssl command.
///
///     WebSocketCertificates authority;
///     TlsIdentity::Load(authority.Make("guid-a"), error);
class WebSocketCertificates final
{
public:
    WebSocketCertificates()
    {
        Run("openssl req -x509 " + NewKey(m_root + "/ca-key.pem") + " -out " + m_root + "/ca.pem -days 2 -subj /CN=ca");
    }
    WebSocketCertificates(const WebSocketCertificates&) = delete;
    WebSocketCertificates& operator=(const WebSocketCertificates&) = delete;

    /// Creates a certificate. Returns the directory with its ca.pem, cert.pem and key.pem.
    std::string Make(const std::string& commonName, const std::string& dnsName = {}) const
    {
        const std::string directory = m_root + "/" + commonName;
        std::filesystem::create_directories(directory);
        std::filesystem::copy(m_root + "/ca.pem", directory + "/ca.pem");
        std::ofstream(directory + "/extensions")
            << (dnsName.empty() ? "basicConstraints=CA:FALSE" : "subjectAltName=DNS:" + dnsName) << "\n";
        Run("openssl req " + NewKey(directory + "/key.pem") + " -out " + directory +
            "/request -subj /CN=" + commonName);
        Run("openssl x509 -req -in " + directory + "/request -CA " + m_root + "/ca.pem -CAkey " + m_root +
            "/ca-key.pem -CAcreateserial -days 2 -extfile " + directory + "/extensions -out " + directory +
            "/cert.pem");
        return directory;
    }

private:
    static std::string NewKey(const std::string& file)
    {
        return "-newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout " + file;
    }
    static void Run(const std::string& command)
    {
        EXPECT_EQ(std::system((command + " >/dev/null 2>&1").c_str()), 0) << command;
    }

    TempDirectory m_directory;
    const std::string& m_root = m_directory.Path();
};
