#include "support/TestCertificates.h"

#include <openssl/bio.h>
#include <openssl/ec.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace {

void require(bool condition, const char* what) {
    if (!condition) {
        std::fprintf(stderr, "test certificates: %s failed\n", what);
        std::abort();
    }
}

void addExtension(X509* certificate, int nid, const char* value) {
    X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, nullptr, nid, value);
    require(extension != nullptr, value);
    X509_add_ext(certificate, extension, -1);
    X509_EXTENSION_free(extension);
}

struct Content {
    const char* name;
    const char* alternativeNames;  // null: the certificate is an authority's
    long notBefore;                // seconds relative to now
    long notAfter;
};

// A certificate that is signed by `authority`, or self-signed if `authority` is null.
TestCertificate make(const Content& content, const TestCertificate* authority) {
    static long serial = 0;
    TestCertificate made;
    made.key.reset(EVP_EC_gen("P-256"), EVP_PKEY_free);
    made.certificate.reset(X509_new(), X509_free);
    X509* certificate = made.certificate.get();
    require(made.key && certificate, "key");
    X509_set_version(certificate, X509_VERSION_3);
    ASN1_INTEGER_set(X509_get_serialNumber(certificate), ++serial);
    X509_gmtime_adj(X509_getm_notBefore(certificate), content.notBefore);
    X509_gmtime_adj(X509_getm_notAfter(certificate), content.notAfter);
    X509_set_pubkey(certificate, made.key.get());
    X509_NAME_add_entry_by_txt(X509_get_subject_name(certificate), "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>(content.name), -1, -1, 0);
    const TestCertificate& issuer = authority ? *authority : made;
    X509_set_issuer_name(certificate, X509_get_subject_name(issuer.certificate.get()));
    if (content.alternativeNames) {
        addExtension(certificate, NID_subject_alt_name, content.alternativeNames);
    } else {
        addExtension(certificate, NID_basic_constraints, "critical,CA:TRUE");
        addExtension(certificate, NID_key_usage, "critical,keyCertSign,cRLSign");
    }
    require(X509_sign(certificate, issuer.key.get(), EVP_sha256()) > 0, "signing");
    return made;
}

template <class Writer>
std::string written(Writer write) {
    BIO* bio = BIO_new(BIO_s_mem());
    write(bio);
    char* data = nullptr;
    const long size = BIO_get_mem_data(bio, &data);
    std::string text(data, static_cast<size_t>(size));
    BIO_free(bio);
    return text;
}

constexpr long kDay = 24 * 60 * 60;
constexpr const char* kLoopback = "DNS:localhost,IP:127.0.0.1";

}  // namespace

std::string TestCertificate::pem() const {
    return written([this](BIO* bio) { PEM_write_bio_X509(bio, certificate.get()); });
}

std::string TestCertificate::keyPem() const {
    return written(
        [this](BIO* bio) { PEM_write_bio_PrivateKey(bio, key.get(), nullptr, nullptr, 0, nullptr, nullptr); });
}

const TestCertificate& testAuthority() {
    static const TestCertificate authority = make({"Trusted test authority", nullptr, -kDay, kDay}, nullptr);
    return authority;
}

const std::string& testAuthorityFile() {
    static const struct File {
        File() { std::ofstream(path) << testAuthority().pem(); }
        ~File() { std::remove(path.c_str()); }
        const std::string path =
            std::filesystem::temp_directory_path() / ("vexalive-test-authority-" + std::to_string(getpid()) + ".pem");
    } file;
    return file.path;
}

TestCertificate makeServerCertificate(CertificateFault fault) {
    const bool isExpired = fault == CertificateFault::kExpired;
    const char* const names = fault == CertificateFault::kOtherHost ? "DNS:elsewhere.example" : kLoopback;
    const Content content = {"test server", names, isExpired ? -2 * kDay : -kDay, isExpired ? -kDay : kDay};
    if (fault == CertificateFault::kSelfSigned) {
        return make(content, nullptr);
    }
    if (fault == CertificateFault::kUnknownAuthority) {
        const TestCertificate unknown = make({"Unknown test authority", nullptr, -kDay, kDay}, nullptr);
        return make(content, &unknown);
    }
    return make(content, &testAuthority());
}
