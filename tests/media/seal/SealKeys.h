#pragma once

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <cstdio>
#include <memory>
#include <string>

#include "media/seal/SealRequest.h"

namespace tarn_test {

// A key pair with its certificate, in files /tmp/NAME.key and /tmp/NAME.pem.
class SealKey {
 public:
  // Vouched for by `authority`, or by itself. `bits` 0: not RSA.
  explicit SealKey(const std::string& name, const SealKey* authority = nullptr,
                   unsigned bits = 2048)
      : name_(name),
        key_(bits == 0 ? EVP_EC_gen("P-256") : EVP_RSA_gen(bits), EVP_PKEY_free),
        x509_(X509_new(), X509_free) {
    X509* x509 = x509_.get();
    X509_set_version(x509, 2);
    ASN1_INTEGER_set(X509_get_serialNumber(x509), 1);
    X509_gmtime_adj(X509_getm_notBefore(x509), -86400);
    X509_gmtime_adj(X509_getm_notAfter(x509), 86400);
    X509_set_pubkey(x509, key_.get());
    X509_NAME* subject = X509_get_subject_name(x509);
    X509_NAME_add_entry_by_txt(subject, "CN", MBSTRING_UTF8,
                               reinterpret_cast<const unsigned char*>(name.c_str()), -1, -1, 0);
    const SealKey& by = authority == nullptr ? *this : *authority;
    X509_set_issuer_name(x509, X509_get_subject_name(by.x509_.get()));
    if (authority == nullptr) {
      X509_EXTENSION* mayVouch =
          X509V3_EXT_conf_nid(nullptr, nullptr, NID_basic_constraints, "critical,CA:TRUE");
      X509_add_ext(x509, mayVouch, -1);
      X509_EXTENSION_free(mayVouch);
    }
    certify(by);
    FILE* file = fopen(keyPath().c_str(), "we");
    PEM_write_PrivateKey(file, key_.get(), nullptr, nullptr, 0, nullptr, nullptr);
    fclose(file);
  }
  // Once more: what an authority signs on a curve is of uneven length.
  void certify(const SealKey& by) {
    X509_sign(x509_.get(), by.key_.get(), EVP_sha256());
    FILE* file = fopen(path().c_str(), "we");
    PEM_write_X509(file, x509_.get());
    fclose(file);
  }
  int certificateSize() const { return i2d_X509(x509_.get(), nullptr); }

  std::string keyPath() const { return "/tmp/" + name_ + ".key"; }
  std::string path() const { return "/tmp/" + name_ + ".pem"; }
  tarn::SealRequest request(const std::string& note = "") const {
    return {keyPath(), path(), "Ann Onymous", note};
  }

 private:
  std::string name_;
  std::unique_ptr<EVP_PKEY, void (*)(EVP_PKEY*)> key_;
  std::unique_ptr<X509, void (*)(X509*)> x509_;
};

}  // namespace tarn_test
