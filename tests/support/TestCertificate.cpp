#include "support/TestCertificate.h"

#include <stdlib.h>

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <system_error>

#if FTPDISK_TESTS_TLS
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>
#endif

namespace ftptest {

#if FTPDISK_TESTS_TLS

namespace {

// Owners of OpenSSL objects, freed on every way out.
struct KeyOwner {
    EVP_PKEY* key = nullptr;
    ~KeyOwner() { EVP_PKEY_free(key); }
};
struct CertOwner {
    X509* cert = nullptr;
    ~CertOwner() { X509_free(cert); }
};

std::string lastOpenSslError(const std::string& step) {
    char text[256] = "";
    unsigned long code = ERR_get_error();
    if (code != 0) ERR_error_string_n(code, text, sizeof text);
    ERR_clear_error();
    return step + " failed" + (code != 0 ? std::string(": ") + text : std::string());
}

// Adds one extension in the configuration syntax ("critical,CA:TRUE").
bool addExtension(X509* cert, X509* issuer, int nid, const char* value) {
    X509V3_CTX context;
    X509V3_set_ctx_nodb(&context);
    X509V3_set_ctx(&context, issuer, cert, nullptr, nullptr, 0);
    X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, &context, nid, value);
    if (extension == nullptr) return false;
    const bool added = X509_add_ext(cert, extension, -1) == 1;
    X509_EXTENSION_free(extension);
    return added;
}

struct Extension {
    int nid;
    const char* value;
};

// A certificate for `key` named `commonName`, signed by `issuerKey` in the
// name of `issuer` (null: its own issuer). The subject key identifier comes
// first: the authority key identifier of a self-signed certificate is taken
// from it.
X509* makeCertificate(EVP_PKEY* key, const char* commonName, X509* issuer, EVP_PKEY* issuerKey,
                      std::initializer_list<Extension> extensions, std::string* why) {
    X509* cert = X509_new();
    if (cert == nullptr) {
        *why = lastOpenSslError("X509_new");
        return nullptr;
    }
    uint64_t serial = 0;
    RAND_bytes(reinterpret_cast<unsigned char*>(&serial), sizeof serial);
    serial = (serial >> 2) + 1;  // positive and non-zero
    X509_NAME* subject = X509_get_subject_name(cert);
    bool ok =
        X509_set_version(cert, 2) == 1 &&
        ASN1_INTEGER_set_uint64(X509_get_serialNumber(cert), serial) == 1 &&
        X509_gmtime_adj(X509_getm_notBefore(cert), -3600) != nullptr &&
        X509_gmtime_adj(X509_getm_notAfter(cert), 24 * 3600) != nullptr &&
        X509_set_pubkey(cert, key) == 1 &&
        X509_NAME_add_entry_by_txt(subject, "O", MBSTRING_ASC,
                                   reinterpret_cast<const unsigned char*>("ftpdisk tests"), -1, -1,
                                   0) == 1 &&
        X509_NAME_add_entry_by_txt(subject, "CN", MBSTRING_ASC,
                                   reinterpret_cast<const unsigned char*>(commonName), -1, -1,
                                   0) == 1 &&
        X509_set_issuer_name(cert, X509_get_subject_name(issuer != nullptr ? issuer : cert)) == 1 &&
        addExtension(cert, issuer != nullptr ? issuer : cert, NID_subject_key_identifier, "hash") &&
        addExtension(cert, issuer != nullptr ? issuer : cert, NID_authority_key_identifier,
                     "keyid:always");
    for (const Extension& e : extensions)
        ok = ok && addExtension(cert, issuer != nullptr ? issuer : cert, e.nid, e.value);
    ok = ok && X509_sign(cert, issuerKey != nullptr ? issuerKey : key, EVP_sha256()) > 0;
    if (!ok) {
        *why = lastOpenSslError(std::string("making the certificate of ") + commonName);
        X509_free(cert);
        return nullptr;
    }
    return cert;
}

bool writeCertificate(const std::string& path, X509* cert, std::string* why) {
    std::FILE* f = std::fopen(path.c_str(), "w");
    if (f == nullptr) {
        *why = "cannot create " + path;
        return false;
    }
    const bool ok = PEM_write_X509(f, cert) == 1;
    if (std::fclose(f) != 0 || !ok) {
        *why = lastOpenSslError("writing " + path);
        return false;
    }
    return true;
}

bool writeKey(const std::string& path, EVP_PKEY* key, std::string* why) {
    std::FILE* f = std::fopen(path.c_str(), "w");
    if (f == nullptr) {
        *why = "cannot create " + path;
        return false;
    }
    const bool ok = PEM_write_PrivateKey(f, key, nullptr, nullptr, 0, nullptr, nullptr) == 1;
    if (std::fclose(f) != 0 || !ok) {
        *why = lastOpenSslError("writing " + path);
        return false;
    }
    return true;
}

}  // namespace

TestCertificate::TestCertificate(CertificateKind kind) {
    char pattern[] = "/tmp/ftpdisk-cert-XXXXXX";
    const char* made = mkdtemp(pattern);
    if (made == nullptr) {
        failure_ = "cannot make a folder below /tmp";
        return;
    }
    folder_ = made;
    caFile_ = folder_ + "/ca.pem";
    certFile_ = folder_ + "/server.pem";
    keyFile_ = folder_ + "/server-key.pem";

    KeyOwner caKey, serverKey;
    caKey.key = EVP_EC_gen("P-256");
    serverKey.key = EVP_EC_gen("P-256");
    if (caKey.key == nullptr || serverKey.key == nullptr) {
        failure_ = lastOpenSslError("EC key generation");
        return;
    }
    const char* names =
        kind == CertificateKind::kOtherName ? "DNS:other.invalid" : "IP:127.0.0.1,DNS:localhost";
    const char* commonName = kind == CertificateKind::kOtherName ? "other.invalid" : "localhost";
    CertOwner ca, server;
    if (kind == CertificateKind::kSelfSigned) {
        server.cert = makeCertificate(serverKey.key, commonName, nullptr, nullptr,
                                      {{NID_basic_constraints, "critical,CA:FALSE"},
                                       {NID_key_usage, "critical,digitalSignature"},
                                       {NID_ext_key_usage, "serverAuth"},
                                       {NID_subject_alt_name, names}},
                                      &failure_);
        if (server.cert == nullptr) return;
        caFile_ = certFile_;
    } else {
        ca.cert = makeCertificate(caKey.key, "ftpdisk test CA", nullptr, nullptr,
                                  {{NID_basic_constraints, "critical,CA:TRUE"},
                                   {NID_key_usage, "critical,keyCertSign,cRLSign"}},
                                  &failure_);
        if (ca.cert == nullptr) return;
        server.cert = makeCertificate(serverKey.key, commonName, ca.cert, caKey.key,
                                      {{NID_basic_constraints, "critical,CA:FALSE"},
                                       {NID_key_usage, "critical,digitalSignature"},
                                       {NID_ext_key_usage, "serverAuth"},
                                       {NID_subject_alt_name, names}},
                                      &failure_);
        if (server.cert == nullptr) return;
        if (!writeCertificate(caFile_, ca.cert, &failure_)) return;
    }
    if (!writeCertificate(certFile_, server.cert, &failure_) ||
        !writeKey(keyFile_, serverKey.key, &failure_))
        return;

    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (X509_digest(server.cert, EVP_sha256(), digest, &length) != 1 || length != 32) {
        failure_ = lastOpenSslError("X509_digest");
        return;
    }
    sha256_.assign(reinterpret_cast<const char*>(digest), length);
    static const char kHex[] = "0123456789ABCDEF";
    for (unsigned int i = 0; i < length; ++i) {
        if (i > 0) fingerprint_ += ':';
        fingerprint_ += kHex[digest[i] >> 4];
        fingerprint_ += kHex[digest[i] & 0x0f];
    }
}

bool TestCertificate::available() { return true; }

#else  // FTPDISK_TESTS_TLS

TestCertificate::TestCertificate(CertificateKind) {
    failure_ = "built without TLS (FTPDISK_TLS off)";
}

bool TestCertificate::available() { return false; }

#endif  // FTPDISK_TESTS_TLS

TestCertificate::~TestCertificate() {
    std::error_code ignored;
    if (!folder_.empty()) std::filesystem::remove_all(folder_, ignored);
}

}  // namespace ftptest
