#include "tests/support/TestCertificates.h"

#include "tests/support/RunProgram.h"

#include <filesystem>
#include <stdexcept>
#include <vector>

namespace zel::test {

namespace {

void runOpenssl(std::vector<std::string> words)
{
    words.insert(words.begin(), "openssl");
    const ProgramResult result = runProgram(words);
    if (!result.succeeded()) {
        throw std::runtime_error("openssl: " + result.describe());
    }
}

/// What every certificate here has in common.
std::vector<std::string> newCertificate(const std::string& configuration,
                                        const std::string& certificate, const std::string& key)
{
    return {"req",     "-x509", "-config",  configuration,
            "-newkey", "ec",    "-pkeyopt", "ec_paramgen_curve:prime256v1",
            "-nodes",  "-days", "30",       "-keyout",
            key,       "-out",  certificate};
}

} // namespace

TestCertificates::TestCertificates()
{
    std::filesystem::create_directory(authorityFolder());
    const std::string key = m_folder.path("authority.key");
    const std::string strangers = m_folder.path("strangers.pem");
    const std::string strangersKey = m_folder.path("strangers.key");
    makeAuthority(authority(), key);
    makeAuthority(strangers, strangersKey);
    const std::string here = "IP:127.0.0.1,DNS:localhost";
    makeServer("server", here, authority(), key);
    makeServer("wronghost", "DNS:elsewhere.invalid", authority(), key);
    makeServer("stranger", here, strangers, strangersKey);
}

TestCertificates::Pair TestCertificates::pair(const std::string& name) const
{
    return {m_folder.path(name + ".pem"), m_folder.path(name + ".key")};
}

void TestCertificates::makeAuthority(const std::string& certificate, const std::string& key)
{
    writeFile(m_folder.path("authority.conf"), "[req]\n"
                                               "distinguished_name = name\n"
                                               "x509_extensions = extensions\n"
                                               "prompt = no\n"
                                               "[name]\n"
                                               "CN = Test authority " +
                                                   std::filesystem::path(key).stem().string() +
                                                   "\n"
                                                   "[extensions]\n"
                                                   "basicConstraints = critical, CA:TRUE\n"
                                                   "keyUsage = critical, keyCertSign\n"
                                                   "subjectKeyIdentifier = hash\n");
    runOpenssl(newCertificate(m_folder.path("authority.conf"), certificate, key));
}

void TestCertificates::makeServer(const std::string& name, const std::string& addresses,
                                  const std::string& authority, const std::string& authorityKey)
{
    const std::string configuration = m_folder.path(name + ".conf");
    writeFile(configuration, "[req]\n"
                             "distinguished_name = name\n"
                             "x509_extensions = extensions\n"
                             "prompt = no\n"
                             "[name]\n"
                             "CN = Test server " +
                                 name +
                                 "\n"
                                 "[extensions]\n"
                                 "basicConstraints = critical, CA:FALSE\n"
                                 "keyUsage = critical, digitalSignature\n"
                                 "extendedKeyUsage = serverAuth\n"
                                 "subjectKeyIdentifier = hash\n"
                                 "authorityKeyIdentifier = keyid\n"
                                 "subjectAltName = " +
                                 addresses + "\n");
    const Pair files = pair(name);
    std::vector<std::string> words = newCertificate(configuration, files.certificate, files.key);
    words.insert(words.end(), {"-CA", authority, "-CAkey", authorityKey});
    runOpenssl(words);
}

} // namespace zel::test
