#include "service/Certificates.h"

#include <fcntl.h>
#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <utility>
#include <vector>

#include "common/Descriptor.h"

namespace vexalive {

namespace {

constexpr long kSecondsPerDay = 86'400;
constexpr int kAuthorityDays = 3650;
constexpr int kServerDays = 365;
constexpr int kRenewalDays = 30;
constexpr size_t kMaxFileBytes = size_t{64} << 10;

using Certificate = std::unique_ptr<X509, decltype(&X509_free)>;
using Key = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;

struct CertifiedKey {
    Certificate certificate{nullptr, &X509_free};
    Key key{nullptr, &EVP_PKEY_free};
};

tl::unexpected<Error> fileError(const std::string& action, const std::string& path, int error) {
    return failure("cannot " + action + " " + path + ": " + systemMessage(error));
}

// The OpenSSL functions of this file fail only if memory or random numbers are not available.
tl::unexpected<Error> cryptographicError() {
    ERR_clear_error();
    return failure("cannot make a certificate: the cryptographic library failed");
}

// ---- Files ----------------------------------------------------------------------------------------------------------

Descriptor openFile(const std::string& path, int flags, mode_t mode) {
    return Descriptor(::open(path.c_str(), flags | O_CLOEXEC | O_NOFOLLOW, mode));
}

Result<void> makeFolder(const std::string& folder) {
    for (size_t end = folder.find('/', 1);; end = folder.find('/', end + 1)) {
        const std::string part = folder.substr(0, end);
        struct stat status {};
        if (::mkdir(part.c_str(), 0700) != 0 && errno != EEXIST) {
            return fileError("make the folder", part, errno);
        }
        if (::stat(part.c_str(), &status) != 0) {
            return fileError("use the folder", part, errno);
        }
        if (!S_ISDIR(status.st_mode)) {
            return fileError("use the folder", part, ENOTDIR);
        }
        if (end == std::string::npos) {
            return {};
        }
    }
}

bool exists(const std::string& path) {
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0;
}

enum class Secrecy { kPublic, kSecret };

Result<std::string> readFile(const std::string& path, Secrecy secrecy) {
    const Descriptor file = openFile(path, O_RDONLY, 0);
    struct stat status {};
    if (!file.isOpen() || ::fstat(file.get(), &status) != 0) {
        return fileError("read", path, errno);
    }
    if (secrecy == Secrecy::kSecret && (status.st_mode & 077) != 0) {
        return failure(path + " can be read by others than its owner: make it private (chmod 600), or remove it and " +
                       "ca.pem to create a new authority");
    }
    std::string content(kMaxFileBytes, '\0');
    size_t length = 0;
    while (length < content.size()) {
        const ssize_t count = ::read(file.get(), &content[length], content.size() - length);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count < 0) {
            return fileError("read", path, errno);
        }
        if (count == 0) {
            break;
        }
        length += static_cast<size_t>(count);
    }
    content.resize(length);
    return content;
}

// Replaces the file atomically: a reader finds either the old content or all of the new content. The file never has
// wider permissions than `secrecy` allows.
Result<void> replaceFile(const std::string& path, const std::string& content, Secrecy secrecy) {
    const std::string temporary = path + ".new";
    ::unlink(temporary.c_str());
    {
        const Descriptor file =
            openFile(temporary, O_WRONLY | O_CREAT | O_EXCL, secrecy == Secrecy::kSecret ? 0600 : 0644);
        if (!file.isOpen()) {
            return fileError("write", temporary, errno);
        }
        for (size_t written = 0; written < content.size();) {
            const ssize_t count = ::write(file.get(), &content[written], content.size() - written);
            if (count < 0 && errno != EINTR) {
                return fileError("write", temporary, errno);
            }
            written += count > 0 ? static_cast<size_t>(count) : 0;
        }
        if (::fsync(file.get()) != 0) {
            return fileError("write", temporary, errno);
        }
    }
    if (::rename(temporary.c_str(), path.c_str()) != 0) {
        return fileError("write", path, errno);
    }
    return {};
}

// ---- PEM ------------------------------------------------------------------------------------------------------------

using Bio = std::unique_ptr<BIO, decltype(&BIO_free)>;

Bio reader(const std::string& pem) {
    return Bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())), &BIO_free);
}

// Null if `pem` contains no certificate.
Certificate readCertificate(const std::string& pem) {
    Certificate certificate(PEM_read_bio_X509(reader(pem).get(), nullptr, nullptr, nullptr), &X509_free);
    ERR_clear_error();
    return certificate;
}

// Null if `pem` contains no private key, or if the key has a password, which nobody could enter.
Key readKey(const std::string& pem) {
    const auto noPassword = [](char*, int, int, void*) { return -1; };
    Key key(PEM_read_bio_PrivateKey(reader(pem).get(), nullptr, noPassword, nullptr), &EVP_PKEY_free);
    ERR_clear_error();
    return key;
}

// The certificate and the key, or one of them if the other is null.
Result<std::string> toPem(X509* certificate, EVP_PKEY* key) {
    const Bio memory(BIO_new(BIO_s_mem()), &BIO_free);
    if (!memory || (certificate && PEM_write_bio_X509(memory.get(), certificate) != 1) ||
        (key && PEM_write_bio_PKCS8PrivateKey(memory.get(), key, nullptr, nullptr, 0, nullptr, nullptr) != 1)) {
        return cryptographicError();
    }
    char* data = nullptr;
    const long size = BIO_get_mem_data(memory.get(), &data);
    return std::string(data, static_cast<size_t>(size));
}

Result<void> writePem(const std::string& path, X509* certificate, EVP_PKEY* key) {
    return toPem(certificate, key).and_then([&](const std::string& pem) {
        return replaceFile(path, pem, key ? Secrecy::kSecret : Secrecy::kPublic);
    });
}

// ---- Issuing --------------------------------------------------------------------------------------------------------

using Extensions = std::vector<std::pair<int, std::string>>;

// Issues a certificate that `issuer` signs; a self-signed one if `issuer` is null. It is valid from one hour ago, since
// the clocks of clients may differ.
Result<CertifiedKey> issue(const std::string& name, int days, const Extensions& extensions, const CertifiedKey* issuer,
                           std::time_t now) {
    CertifiedKey issued;
    issued.key.reset(EVP_EC_gen("P-256"));
    issued.certificate.reset(X509_new());
    X509* certificate = issued.certificate.get();
    unsigned char serial[16];
    if (!issued.key || !certificate || RAND_bytes(serial, sizeof serial) != 1) {
        return cryptographicError();
    }
    const std::unique_ptr<BIGNUM, decltype(&BN_free)> number(BN_bin2bn(serial, sizeof serial, nullptr), &BN_free);
    X509* issuingCertificate = issuer ? issuer->certificate.get() : certificate;
    const auto* const subject = reinterpret_cast<const unsigned char*>(name.c_str());
    if (!number || !BN_to_ASN1_INTEGER(number.get(), X509_get_serialNumber(certificate)) ||
        X509_set_version(certificate, X509_VERSION_3) != 1 ||
        !X509_time_adj_ex(X509_getm_notBefore(certificate), 0, -3600, &now) ||
        !X509_time_adj_ex(X509_getm_notAfter(certificate), days, 0, &now) ||
        X509_NAME_add_entry_by_txt(X509_get_subject_name(certificate), "CN", MBSTRING_UTF8, subject, -1, -1, 0) != 1 ||
        X509_set_issuer_name(certificate, X509_get_subject_name(issuingCertificate)) != 1 ||
        X509_set_pubkey(certificate, issued.key.get()) != 1) {
        return cryptographicError();
    }

    X509V3_CTX context;
    X509V3_set_ctx_nodb(&context);
    X509V3_set_ctx(&context, issuingCertificate, certificate, nullptr, nullptr, 0);
    for (const auto& [kind, value] : extensions) {
        const std::unique_ptr<X509_EXTENSION, decltype(&X509_EXTENSION_free)> extension(
            X509V3_EXT_conf_nid(nullptr, &context, kind, value.c_str()), &X509_EXTENSION_free);
        if (!extension || X509_add_ext(certificate, extension.get(), -1) != 1) {
            return cryptographicError();
        }
    }
    EVP_PKEY* signer = issuer ? issuer->key.get() : issued.key.get();
    if (X509_sign(certificate, signer, EVP_sha256()) <= 0) {
        return cryptographicError();
    }
    return issued;
}

// ---- The names of the server certificate ----------------------------------------------------------------------------

bool isIpAddress(const std::string& name) {
    const std::unique_ptr<ASN1_OCTET_STRING, decltype(&ASN1_OCTET_STRING_free)> address(a2i_IPADDRESS(name.c_str()),
                                                                                        &ASN1_OCTET_STRING_free);
    ERR_clear_error();
    return address != nullptr;
}

bool isHostName(const std::string& name) {
    return !name.empty() && std::all_of(name.begin(), name.end(), [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '.';
    });
}

std::vector<std::string> serverNames(const std::string& address) {
    std::vector<std::string> names = {"localhost", "127.0.0.1", "::1"};
    const bool isKnown = std::find(names.begin(), names.end(), address) != names.end();
    const bool isAnyAddress = address == "0.0.0.0" || address == "::";
    if (!isKnown && !isAnyAddress && (isIpAddress(address) || isHostName(address))) {
        names.push_back(address);
    }
    return names;
}

bool isValidFor(X509* certificate, const std::string& name) {
    return isIpAddress(name) ? X509_check_ip_asc(certificate, name.c_str(), 0) == 1
                             : X509_check_host(certificate, name.c_str(), name.size(), 0, nullptr) == 1;
}

// ---- The two certificates -------------------------------------------------------------------------------------------

// Also false if the cryptographic library fails.
bool isTrusted(const CertifiedKey& server, const CertifiedKey& authority, std::time_t when) {
    const std::unique_ptr<X509_STORE, decltype(&X509_STORE_free)> store(X509_STORE_new(), &X509_STORE_free);
    const std::unique_ptr<X509_STORE_CTX, decltype(&X509_STORE_CTX_free)> context(X509_STORE_CTX_new(),
                                                                                  &X509_STORE_CTX_free);
    bool isValid = store && context && X509_STORE_add_cert(store.get(), authority.certificate.get()) == 1 &&
                   X509_STORE_CTX_init(context.get(), store.get(), server.certificate.get(), nullptr) == 1;
    if (isValid) {
        X509_VERIFY_PARAM* parameters = X509_STORE_CTX_get0_param(context.get());
        X509_VERIFY_PARAM_set_time(parameters, when);
        isValid = X509_VERIFY_PARAM_set_purpose(parameters, X509_PURPOSE_SSL_SERVER) == 1 &&
                  X509_verify_cert(context.get()) == 1;
    }
    ERR_clear_error();
    return isValid;
}

bool isUsable(const CertifiedKey& server, const CertifiedKey& authority, const std::vector<std::string>& names,
              std::time_t now) {
    if (!server.certificate || !server.key || X509_check_private_key(server.certificate.get(), server.key.get()) != 1) {
        ERR_clear_error();
        return false;
    }
    return isTrusted(server, authority, now) && isTrusted(server, authority, now + kRenewalDays * kSecondsPerDay) &&
           std::all_of(names.begin(), names.end(),
                       [&server](const std::string& name) { return isValidFor(server.certificate.get(), name); });
}

Result<CertifiedKey> makeAuthority(const std::string& certificateFile, const std::string& keyFile, std::time_t now) {
    Result<CertifiedKey> authority = issue("vexalive local authority", kAuthorityDays,
                                           {{NID_basic_constraints, "critical,CA:TRUE,pathlen:0"},
                                            {NID_key_usage, "critical,keyCertSign,cRLSign"},
                                            {NID_subject_key_identifier, "hash"}},
                                           nullptr, now);
    if (!authority) {
        return authority;
    }
    // The key is written first: the next start repairs a key without a certificate, but not a certificate without a
    // key.
    const Result<void> written = writePem(keyFile, nullptr, authority->key.get()).and_then([&] {
        return writePem(certificateFile, authority->certificate.get(), nullptr);
    });
    return written ? std::move(authority) : tl::unexpected(written.error());
}

Result<CertifiedKey> prepareAuthority(const std::string& folder, std::time_t now) {
    const std::string certificateFile = folder + "/ca.pem";
    const std::string keyFile = folder + "/ca-key.pem";
    const std::string remedy =
        ": remove " + certificateFile + " to create a new authority, which clients then have to trust";
    if (!exists(certificateFile)) {
        return makeAuthority(certificateFile, keyFile, now);
    }
    CertifiedKey authority;
    const Result<std::string> certificatePem = readFile(certificateFile, Secrecy::kPublic);
    if (!certificatePem) {
        return tl::unexpected(certificatePem.error());
    }
    authority.certificate = readCertificate(*certificatePem);
    if (!authority.certificate) {
        return failure(certificateFile + " is damaged" + remedy);
    }
    if (!exists(keyFile)) {
        return failure(keyFile + " is missing" + remedy);
    }
    const Result<std::string> keyPem = readFile(keyFile, Secrecy::kSecret);
    if (!keyPem) {
        return tl::unexpected(keyPem.error());
    }
    authority.key = readKey(*keyPem);
    if (!authority.key) {
        return failure(keyFile + " is damaged" + remedy);
    }
    if (X509_check_private_key(authority.certificate.get(), authority.key.get()) != 1) {
        ERR_clear_error();
        return failure(keyFile + " does not belong to " + certificateFile + remedy);
    }
    std::time_t soon = now + kRenewalDays * kSecondsPerDay;
    if (X509_cmp_time(X509_get0_notAfter(authority.certificate.get()), &soon) < 0) {
        return failure(certificateFile + " has expired or is about to" + remedy);
    }
    return authority;
}

// Without a certificate and a key if there is no file.
Result<CertifiedKey> readServer(const std::string& path) {
    if (!exists(path)) {
        return CertifiedKey();
    }
    return readFile(path, Secrecy::kSecret).map([](const std::string& pem) {
        return CertifiedKey{readCertificate(pem), readKey(pem)};
    });
}

Result<CertifiedKey> prepareServer(const std::string& path, const CertifiedKey& authority, const std::string& address,
                                   std::time_t now) {
    const std::vector<std::string> names = serverNames(address);
    Result<CertifiedKey> server = readServer(path);
    if (!server || isUsable(*server, authority, names, now)) {
        return server;
    }
    std::string alternatives;
    for (const std::string& name : names) {
        alternatives += (alternatives.empty() ? "" : ",") + std::string(isIpAddress(name) ? "IP:" : "DNS:") + name;
    }
    server = issue("vexalive local service", kServerDays,
                   {{NID_basic_constraints, "critical,CA:FALSE"},
                    {NID_key_usage, "critical,digitalSignature"},
                    {NID_ext_key_usage, "serverAuth"},
                    {NID_subject_key_identifier, "hash"},
                    {NID_authority_key_identifier, "keyid:always"},
                    {NID_subject_alt_name, alternatives}},
                   &authority, now);
    if (!server) {
        return server;
    }
    const Result<void> written = writePem(path, server->certificate.get(), server->key.get());
    return written ? std::move(server) : tl::unexpected(written.error());
}

}  // namespace

std::string defaultStateFolder() {
    const char* state = std::getenv("XDG_STATE_HOME");
    if (state && *state == '/') {  // the XDG rules say: ignore a relative path
        return std::string(state) + "/vexalive";
    }
    const char* home = std::getenv("HOME");
    return home && *home ? std::string(home) + "/.local/state/vexalive" : "";
}

Result<Certificates> prepareCertificates(const std::string& folder, const std::string& address, std::time_t now) {
    if (const Result<void> made = makeFolder(folder); !made) {
        return tl::unexpected(made.error());
    }
    const std::string lockFile = folder + "/lock";
    const Descriptor lock = openFile(lockFile, O_RDWR | O_CREAT, 0600);
    if (!lock.isOpen()) {
        return fileError("write", lockFile, errno);
    }
    while (::flock(lock.get(), LOCK_EX) != 0) {
        if (errno != EINTR) {
            return fileError("lock", lockFile, errno);
        }
    }
    return prepareAuthority(folder, now)
        .and_then([&](const CertifiedKey& authority) {
            return prepareServer(folder + "/server.pem", authority, address, now);
        })
        .and_then([](const CertifiedKey& server) { return toPem(server.certificate.get(), server.key.get()); })
        .map([&](const std::string& pem) {
            return Certificates{folder + "/ca.pem", pem};
        });
}

}  // namespace vexalive
