#pragma once

#include "tests/support/TempFolder.h"

#include <string>

namespace zel::test {

/// Certificates of a test's own, made by `openssl` in a temporary folder. An authority, what it
/// has signed, and a second authority that no client is told of.
class TestCertificates
{
public:
    /// Throws std::runtime_error with what `openssl` said.
    TestCertificates();

    /// A certificate and its key, both PEM files.
    struct Pair
    {
        std::string certificate;
        std::string key;
    };

    /// Has the authority's certificate as "cacert.pem", the name that clients look for in their
    /// working directory, and nothing else that they would look for.
    std::string authorityFolder() const { return m_folder.path("authority"); }
    std::string authority() const { return authorityFolder() + "/cacert.pem"; }
    /// For 127.0.0.1 and localhost.
    Pair server() const { return pair("server"); }
    /// By the same authority, for another host.
    Pair wrongHost() const { return pair("wronghost"); }
    /// For 127.0.0.1 and localhost, by the authority that nobody knows.
    Pair unknownAuthority() const { return pair("stranger"); }

private:
    Pair pair(const std::string& name) const;
    void makeAuthority(const std::string& certificate, const std::string& key);
    void makeServer(const std::string& name, const std::string& addresses,
                    const std::string& authority, const std::string& authorityKey);

    TempFolder m_folder;
};

} // namespace zel::test
