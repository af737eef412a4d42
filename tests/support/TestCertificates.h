// Certificates of the test servers: one authority, and server certificates that are valid or have one fault.

#ifndef VEXALIVE_TESTS_SUPPORT_TEST_CERTIFICATES_H
#define VEXALIVE_TESTS_SUPPORT_TEST_CERTIFICATES_H

#include <openssl/evp.h>
#include <openssl/x509.h>

#include <memory>
#include <string>

struct TestCertificate {
    std::shared_ptr<EVP_PKEY> key;
    std::shared_ptr<X509> certificate;

    std::string pem() const;
    std::string keyPem() const;
};

// The authority that the tests trust. Every call returns the same one.
const TestCertificate& testAuthority();

// The path of a file with the authority's certificate. The file is removed when the process exits.
const std::string& testAuthorityFile();

enum class CertificateFault { kNone, kExpired, kOtherHost, kSelfSigned, kUnknownAuthority };

// A server certificate for localhost and 127.0.0.1, valid or with one fault.
TestCertificate makeServerCertificate(CertificateFault fault = CertificateFault::kNone);

#endif
