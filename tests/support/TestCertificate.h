// TestCertificate: certificates for TLS tests, made on the spot in a fresh
// folder below /tmp (removed with the object).
//
// Each object makes its own private certificate authority (so the CA of one
// object is unknown to a client that trusts another's) and one server
// certificate of the chosen kind, with an EC P-256 key, valid from an hour
// ago for a day:
//   kLoopback   signed by the CA, for IP 127.0.0.1 and DNS localhost;
//   kOtherName  signed by the CA, for DNS other.invalid only (a name mismatch
//               for a client that connects to 127.0.0.1 or localhost);
//   kSelfSigned its own issuer, for IP 127.0.0.1 and DNS localhost.
//
// Built without TLS (FTPDISK_TLS off) nothing is made: ok() is false and
// failure() says why, so a test can skip.
#ifndef FTPDISK_TESTS_SUPPORT_TESTCERTIFICATE_H
#define FTPDISK_TESTS_SUPPORT_TESTCERTIFICATE_H

#include <string>

namespace ftptest {

enum class CertificateKind { kLoopback, kOtherName, kSelfSigned };

class TestCertificate {
public:
    explicit TestCertificate(CertificateKind kind = CertificateKind::kLoopback);
    ~TestCertificate();

    TestCertificate(const TestCertificate&) = delete;
    TestCertificate& operator=(const TestCertificate&) = delete;

    // True when the tests were built with TLS.
    static bool available();

    bool ok() const { return failure_.empty(); }
    const std::string& failure() const { return failure_; }

    const std::string& folder() const { return folder_; }
    // PEM of the private CA (for kSelfSigned: the certificate itself).
    const std::string& caFile() const { return caFile_; }
    // PEM of the server certificate and of its private key.
    const std::string& certFile() const { return certFile_; }
    const std::string& keyFile() const { return keyFile_; }
    // SHA-256 of the server certificate's DER: "AB:CD:..." (95 characters),
    // and the same as 32 raw bytes.
    const std::string& fingerprint() const { return fingerprint_; }
    const std::string& sha256() const { return sha256_; }

private:
    std::string failure_;
    std::string folder_;
    std::string caFile_;
    std::string certFile_;
    std::string keyFile_;
    std::string fingerprint_;
    std::string sha256_;
};

}  // namespace ftptest

#endif  // FTPDISK_TESTS_SUPPORT_TESTCERTIFICATE_H
