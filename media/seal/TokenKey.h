#pragma once

#include <string>

#include "base/Export.h"
#include "media/seal/Crypto.h"

struct engine_st;  // OpenSSL's ENGINE

namespace tarn {

// The way to keys in tokens and smart cards: OpenSSL's provider for pkcs11: addresses, or, as
// Debian 12 has it, its engine for them. Used by one thread. Not part of the interface.
class TARN_API TokenKey {
 public:
  TokenKey() = default;
  ~TokenKey();
  TokenKey(const TokenKey&) = delete;
  TokenKey& operator=(const TokenKey&) = delete;

  static bool isAddress(const std::string& place);
  // The private key at the address, which asks for a PIN that is not in it; it must go before this.
  // Null where it cannot be had, with the reason in *error.
  CryptoOwned<EVP_PKEY> load(const std::string& address, std::string* error);

 private:
  CryptoOwned<EVP_PKEY> loadFromEngine(const std::string& address);

  CryptoOwned<OSSL_PROVIDER> provider_;
  engine_st* engine_ = nullptr;
};

// The first private key that lies at a place of OpenSSL's store: a file, or what a provider knows;
// null where there is none.
CryptoOwned<EVP_PKEY> firstKey(const std::string& place);

}  // namespace tarn
