// Certificates for the tests' own servers: one authority, and what it (or nobody) has signed.

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

// The authority that the tests trust; the same at every call.
const TestCertificate& testAuthority();

// The path of a file with the authority's certificate; removed when the process exits.
const std::string& testAuthorityFile();

enum class CertificateFault { kNone, kExpired, kOtherHost, kSelfSigned, kUnknownAuthority };

// A server's certificate for localhost and 127.0.0.1, good or with one fault.
TestCertificate makeServerCertificate(CertificateFault fault = CertificateFault::kNone);

#endif
