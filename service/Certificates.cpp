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
#include <stdexcept>
#include <system_error>
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

// Thrown by the functions of this file, with a message for the user. prepareCertificates() returns the message.
class Failure : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

[[noreturn]] void failOnFile(const std::string& action, const std::string& path, int error) {
    throw Failure("cannot " + action + " " + path + ": " + std::generic_category().message(error));
}

// Returns `object`, the result of an OpenSSL function; throws if it is null. The OpenSSL functions of this file fail
// only if memory or random numbers are not available.
template <class T>
T* requireNonNull(T* object) {
    if (!object) {
        ERR_clear_error();
        throw Failure("cannot make a certificate: the cryptographic library failed");
    }
    return object;
}

void requireSuccess(int result) {
    requireNonNull(result == 1 ? &result : nullptr);
}

// ---- Files ----------------------------------------------------------------------------------------------------------

Descriptor openFile(const std::string& path, int flags, mode_t mode) {
    return Descriptor(::open(path.c_str(), flags | O_CLOEXEC | O_NOFOLLOW, mode));
}

void makeFolder(const std::string& folder) {
    for (size_t end = folder.find('/', 1);; end = folder.find('/', end + 1)) {
        const std::string part = folder.substr(0, end);
        struct stat status {};
        if (::mkdir(part.c_str(), 0700) != 0 && errno != EEXIST) {
            failOnFile("make the folder", part, errno);
        }
        if (::stat(part.c_str(), &status) != 0) {
            failOnFile("use the folder", part, errno);
        }
        if (!S_ISDIR(status.st_mode)) {
            failOnFile("use the folder", part, ENOTDIR);
        }
        if (end == std::string::npos) {
            return;
        }
    }
}

bool exists(const std::string& path) {
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0;
}

enum class Secrecy { kPublic, kSecret };

std::string readFile(const std::string& path, Secrecy secrecy) {
    const Descriptor file = openFile(path, O_RDONLY, 0);
    struct stat status {};
    if (!file.isOpen() || ::fstat(file.get(), &status) != 0) {
        failOnFile("read", path, errno);
    }
    if (secrecy == Secrecy::kSecret && (status.st_mode & 077) != 0) {
        throw Failure(path + " can be read by others than its owner: make it private (chmod 600), or remove it and " +
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
            failOnFile("read", path, errno);
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
void replaceFile(const std::string& path, const std::string& content, Secrecy secrecy) {
    const std::string temporary = path + ".new";
    ::unlink(temporary.c_str());
    {
        const Descriptor file =
            openFile(temporary, O_WRONLY | O_CREAT | O_EXCL, secrecy == Secrecy::kSecret ? 0600 : 0644);
        if (!file.isOpen()) {
            failOnFile("write", temporary, errno);
        }
        for (size_t written = 0; written < content.size();) {
            const ssize_t count = ::write(file.get(), &content[written], content.size() - written);
            if (count < 0 && errno != EINTR) {
                failOnFile("write", temporary, errno);
            }
            written += count > 0 ? static_cast<size_t>(count) : 0;
        }
        if (::fsync(file.get()) != 0) {
            failOnFile("write", temporary, errno);
        }
    }
    if (::rename(temporary.c_str(), path.c_str()) != 0) {
        failOnFile("write", path, errno);
    }
}

// ---- PEM ------------------------------------------------------------------------------------------------------------

using Bio = std::unique_ptr<BIO, decltype(&BIO_free)>;

Bio reader(const std::string& pem) {
    return Bio(requireNonNull(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size()))), &BIO_free);
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

template <class Write>
std::string toPem(Write write) {
    const Bio memory(requireNonNull(BIO_new(BIO_s_mem())), &BIO_free);
    requireSuccess(write(memory.get()));
    char* data = nullptr;
    const long size = BIO_get_mem_data(memory.get(), &data);
    return std::string(data, static_cast<size_t>(size));
}

std::string toPem(X509* certificate) {
    return toPem([&](BIO* memory) { return PEM_write_bio_X509(memory, certificate); });
}

std::string toPem(EVP_PKEY* key) {
    return toPem(
        [&](BIO* memory) { return PEM_write_bio_PKCS8PrivateKey(memory, key, nullptr, nullptr, 0, nullptr, nullptr); });
}

// ---- Issuing --------------------------------------------------------------------------------------------------------

Key makeKey() {
    return Key(requireNonNull(EVP_EC_gen("P-256")), &EVP_PKEY_free);
}

using Extensions = std::vector<std::pair<int, std::string>>;

// Issues a certificate that `issuer` signs; a self-signed one if `issuer` is null. It is valid from one hour ago, since
// the clocks of clients may differ.
CertifiedKey issue(const std::string& name, int days, const Extensions& extensions, const CertifiedKey* issuer,
                   std::time_t now) {
    CertifiedKey issued;
    issued.key = makeKey();
    issued.certificate = Certificate(requireNonNull(X509_new()), &X509_free);
    X509* certificate = issued.certificate.get();
    requireSuccess(X509_set_version(certificate, X509_VERSION_3));

    unsigned char serial[16];
    requireSuccess(RAND_bytes(serial, sizeof serial));
    const std::unique_ptr<BIGNUM, decltype(&BN_free)> number(requireNonNull(BN_bin2bn(serial, sizeof serial, nullptr)),
                                                             &BN_free);
    requireNonNull(BN_to_ASN1_INTEGER(number.get(), X509_get_serialNumber(certificate)));

    requireNonNull(X509_time_adj_ex(X509_getm_notBefore(certificate), 0, -3600, &now));
    requireNonNull(X509_time_adj_ex(X509_getm_notAfter(certificate), days, 0, &now));
    requireSuccess(X509_NAME_add_entry_by_txt(X509_get_subject_name(certificate), "CN", MBSTRING_UTF8,
                                              reinterpret_cast<const unsigned char*>(name.c_str()), -1, -1, 0));
    X509* issuingCertificate = issuer ? issuer->certificate.get() : certificate;
    requireSuccess(X509_set_issuer_name(certificate, X509_get_subject_name(issuingCertificate)));
    requireSuccess(X509_set_pubkey(certificate, issued.key.get()));

    X509V3_CTX context;
    X509V3_set_ctx_nodb(&context);
    X509V3_set_ctx(&context, issuingCertificate, certificate, nullptr, nullptr, 0);
    for (const auto& [kind, value] : extensions) {
        const std::unique_ptr<X509_EXTENSION, decltype(&X509_EXTENSION_free)> extension(
            requireNonNull(X509V3_EXT_conf_nid(nullptr, &context, kind, value.c_str())), &X509_EXTENSION_free);
        requireSuccess(X509_add_ext(certificate, extension.get(), -1));
    }
    EVP_PKEY* signer = issuer ? issuer->key.get() : issued.key.get();
    requireNonNull(X509_sign(certificate, signer, EVP_sha256()) > 0 ? certificate : nullptr);
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

bool isTrusted(const CertifiedKey& server, const CertifiedKey& authority, std::time_t when) {
    const std::unique_ptr<X509_STORE, decltype(&X509_STORE_free)> store(requireNonNull(X509_STORE_new()),
                                                                        &X509_STORE_free);
    requireSuccess(X509_STORE_add_cert(store.get(), authority.certificate.get()));
    const std::unique_ptr<X509_STORE_CTX, decltype(&X509_STORE_CTX_free)> context(requireNonNull(X509_STORE_CTX_new()),
                                                                                  &X509_STORE_CTX_free);
    requireSuccess(X509_STORE_CTX_init(context.get(), store.get(), server.certificate.get(), nullptr));
    X509_VERIFY_PARAM* parameters = X509_STORE_CTX_get0_param(context.get());
    X509_VERIFY_PARAM_set_time(parameters, when);
    requireSuccess(X509_VERIFY_PARAM_set_purpose(parameters, X509_PURPOSE_SSL_SERVER));
    const bool isValid = X509_verify_cert(context.get()) == 1;
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

CertifiedKey prepareAuthority(const std::string& folder, std::time_t now) {
    const std::string certificateFile = folder + "/ca.pem";
    const std::string keyFile = folder + "/ca-key.pem";
    const std::string remedy =
        ": remove " + certificateFile + " to create a new authority, which clients then have to trust";
    CertifiedKey authority;
    if (!exists(certificateFile)) {
        authority = issue("vexalive local authority", kAuthorityDays,
                          {{NID_basic_constraints, "critical,CA:TRUE,pathlen:0"},
                           {NID_key_usage, "critical,keyCertSign,cRLSign"},
                           {NID_subject_key_identifier, "hash"}},
                          nullptr, now);
        // The key is written first: the next start repairs a key without a certificate, but not a certificate without a
        // key.
        replaceFile(keyFile, toPem(authority.key.get()), Secrecy::kSecret);
        replaceFile(certificateFile, toPem(authority.certificate.get()), Secrecy::kPublic);
        return authority;
    }
    authority.certificate = readCertificate(readFile(certificateFile, Secrecy::kPublic));
    if (!authority.certificate) {
        throw Failure(certificateFile + " is damaged" + remedy);
    }
    if (!exists(keyFile)) {
        throw Failure(keyFile + " is missing" + remedy);
    }
    authority.key = readKey(readFile(keyFile, Secrecy::kSecret));
    if (!authority.key) {
        throw Failure(keyFile + " is damaged" + remedy);
    }
    if (X509_check_private_key(authority.certificate.get(), authority.key.get()) != 1) {
        ERR_clear_error();
        throw Failure(keyFile + " does not belong to " + certificateFile + remedy);
    }
    std::time_t soon = now + kRenewalDays * kSecondsPerDay;
    if (X509_cmp_time(X509_get0_notAfter(authority.certificate.get()), &soon) < 0) {
        throw Failure(certificateFile + " has expired or is about to" + remedy);
    }
    return authority;
}

CertifiedKey readServer(const std::string& path) {
    CertifiedKey server;
    if (exists(path)) {
        const std::string pem = readFile(path, Secrecy::kSecret);
        server.certificate = readCertificate(pem);
        server.key = readKey(pem);
    }
    return server;
}

CertifiedKey prepareServer(const std::string& path, const CertifiedKey& authority, const std::string& address,
                           std::time_t now) {
    const std::vector<std::string> names = serverNames(address);
    CertifiedKey server = readServer(path);
    if (isUsable(server, authority, names, now)) {
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
    replaceFile(path, toPem(server.certificate.get()) + toPem(server.key.get()), Secrecy::kSecret);
    return server;
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
    try {
        makeFolder(folder);
        const std::string lockFile = folder + "/lock";
        const Descriptor lock = openFile(lockFile, O_RDWR | O_CREAT, 0600);
        if (!lock.isOpen()) {
            failOnFile("write", lockFile, errno);
        }
        while (::flock(lock.get(), LOCK_EX) != 0) {
            if (errno != EINTR) {
                failOnFile("lock", lockFile, errno);
            }
        }
        const CertifiedKey authority = prepareAuthority(folder, now);
        const CertifiedKey server = prepareServer(folder + "/server.pem", authority, address, now);
        return Certificates{folder + "/ca.pem", toPem(server.certificate.get()) + toPem(server.key.get())};
    } catch (const Failure& error) {
        return failure(error.what());
    }
}

}  // namespace vexalive
