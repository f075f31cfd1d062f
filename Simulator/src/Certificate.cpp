#include <utility>  // ahead of Asio, which forgets it

#include "Certificate.h"

#include <openssl/evp.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <boost/asio/ip/address.hpp>

#include <memory>
#include <stdexcept>

namespace simulator
{
namespace
{

constexpr long secondsOfYear = 365L * 24 * 60 * 60;

using Key = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;
using Certificate = std::unique_ptr<X509, decltype(&X509_free)>;

void require(bool success, const char* step)
{
    if (!success)
        throw std::runtime_error(std::string("OpenSSL cannot ") + step);
}

void addAlternativeName(X509* certificate, const std::string& host)
{
    boost::system::error_code noAddress;
    boost::asio::ip::make_address(host, noAddress);
    const std::string value = (noAddress ? "DNS:" : "IP:") + host;
    const std::unique_ptr<X509_EXTENSION, decltype(&X509_EXTENSION_free)> extension(
        X509V3_EXT_conf_nid(nullptr, nullptr, NID_subject_alt_name, value.c_str()), X509_EXTENSION_free);
    require(extension && X509_add_ext(certificate, extension.get(), -1) == 1, "name the host in the certificate");
}

Certificate makeCertificate(EVP_PKEY* key, const std::string& host)
{
    Certificate certificate(X509_new(), X509_free);
    require(certificate != nullptr, "make a certificate");
    X509* const raw = certificate.get();
    X509_set_version(raw, 2);  // counted from 0: X.509 v3
    ASN1_INTEGER_set(X509_get_serialNumber(raw), 1);
    X509_gmtime_adj(X509_getm_notBefore(raw), -24L * 60 * 60);
    X509_gmtime_adj(X509_getm_notAfter(raw), secondsOfYear);
    X509_set_pubkey(raw, key);
    X509_NAME* const name = X509_get_subject_name(raw);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_UTF8, reinterpret_cast<const unsigned char*>(host.c_str()), -1, -1,
                               0);
    X509_set_issuer_name(raw, name);
    addAlternativeName(raw, host);
    require(X509_sign(raw, key, EVP_sha256()) > 0, "sign the certificate");
    return certificate;
}

}  // namespace

boost::asio::ssl::context selfSignedContext(const std::string& host)
{
    const Key key(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256"), EVP_PKEY_free);
    require(key != nullptr, "make a key");
    const Certificate certificate = makeCertificate(key.get(), host);

    boost::asio::ssl::context context(boost::asio::ssl::context::tls_server);
    require(SSL_CTX_use_certificate(context.native_handle(), certificate.get()) == 1 &&
                SSL_CTX_use_PrivateKey(context.native_handle(), key.get()) == 1,
            "use the certificate");
    return context;
}

}  // namespace simulator
