#include "ThrowawayCa.h"

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <cstdio>
#include <memory>
#include <stdexcept>

namespace testca {
namespace {

template<auto Free>
struct Deleter
{
    template<typename T>
    void operator()(T *p) const { Free(p); }
};
using KeyPtr = std::unique_ptr<EVP_PKEY, Deleter<EVP_PKEY_free>>;
using CertPtr = std::unique_ptr<X509, Deleter<X509_free>>;
using FilePtr = std::unique_ptr<FILE, Deleter<std::fclose>>;

void check(bool ok, const char *what)
{
    if (!ok)
        throw std::runtime_error(std::string("throwaway CA: ") + what);
}

KeyPtr makeKey()
{
    // P-256 keys are made in microseconds; RSA would dominate a test's start-up.
    KeyPtr key(EVP_EC_gen("P-256"));
    check(key != nullptr, "key generation failed");
    return key;
}

void addExtension(X509 *cert, X509 *issuer, int nid, const char *value)
{
    X509V3_CTX ctx;
    X509V3_set_ctx_nodb(&ctx);
    X509V3_set_ctx(&ctx, issuer, cert, nullptr, nullptr, 0);
    X509_EXTENSION *ext = X509V3_EXT_conf_nid(nullptr, &ctx, nid, value);
    check(ext != nullptr, "bad extension");
    const bool added = X509_add_ext(cert, ext, -1) == 1;
    X509_EXTENSION_free(ext);
    check(added, "cannot add extension");
}

CertPtr makeCert(EVP_PKEY *key, const char *commonName, X509 *issuer, EVP_PKEY *issuerKey)
{
    CertPtr cert(X509_new());
    check(cert != nullptr, "X509_new failed");
    X509_set_version(cert.get(), 2);
    // Random serials: a client that cached an earlier run's certificate must not
    // mistake the next one for it.
    unsigned char serial[16];
    check(RAND_bytes(serial, sizeof serial) == 1, "no random bytes");
    serial[0] &= 0x7f;
    BIGNUM *bn = BN_bin2bn(serial, sizeof serial, nullptr);
    BN_to_ASN1_INTEGER(bn, X509_get_serialNumber(cert.get()));
    BN_free(bn);
    // Valid from a day ago, so a clock a little behind does not reject it.
    X509_gmtime_adj(X509_getm_notBefore(cert.get()), -24 * 3600);
    X509_gmtime_adj(X509_getm_notAfter(cert.get()), 30L * 24 * 3600);
    X509_set_pubkey(cert.get(), key);
    X509_NAME *name = X509_get_subject_name(cert.get());
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char *>(commonName), -1, -1, 0);
    X509 *signer = issuer ? issuer : cert.get();
    X509_set_issuer_name(cert.get(), X509_get_subject_name(signer));
    if (issuer) {
        addExtension(cert.get(), signer, NID_basic_constraints, "critical,CA:FALSE");
        addExtension(cert.get(), signer, NID_key_usage, "critical,digitalSignature,keyEncipherment");
        addExtension(cert.get(), signer, NID_ext_key_usage, "serverAuth");
        addExtension(cert.get(), signer, NID_subject_alt_name, "IP:127.0.0.1,DNS:localhost");
    } else {
        addExtension(cert.get(), signer, NID_basic_constraints, "critical,CA:TRUE");
        addExtension(cert.get(), signer, NID_key_usage, "critical,keyCertSign,cRLSign");
        addExtension(cert.get(), signer, NID_subject_key_identifier, "hash");
    }
    check(X509_sign(cert.get(), issuerKey ? issuerKey : key, EVP_sha256()) > 0, "signing failed");
    return cert;
}

FilePtr openForWriting(const std::string &path)
{
    FilePtr file(std::fopen(path.c_str(), "wb"));
    check(file != nullptr, "cannot write into the folder");
    return file;
}

} // namespace

Files makeThrowawayCa(const std::string &dir)
{
    const Files files{dir + "/ca.pem", dir + "/server.pem", dir + "/server-key.pem"};
    const KeyPtr caKey = makeKey();
    const CertPtr ca = makeCert(caKey.get(), "kutils throwaway CA", nullptr, nullptr);
    const KeyPtr serverKey = makeKey();
    const CertPtr server = makeCert(serverKey.get(), "localhost", ca.get(), caKey.get());

    check(PEM_write_X509(openForWriting(files.caCert).get(), ca.get()) == 1, "cannot write CA");
    check(PEM_write_X509(openForWriting(files.serverCert).get(), server.get()) == 1, "cannot write certificate");
    check(PEM_write_PrivateKey(openForWriting(files.serverKey).get(), serverKey.get(), nullptr, nullptr, 0,
                               nullptr, nullptr) == 1,
          "cannot write key");
    return files;
}

} // namespace testca
