#include "media/seal/TokenKey.h"

#include <openssl/engine.h>
#include <openssl/err.h>
#include <openssl/store.h>
#include <openssl/ui.h>

// Engines are the former way, which OpenSSL 3 still has.
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

namespace tarn {
namespace {

constexpr char kTokenScheme[] = "pkcs11:";
constexpr char kTokens[] = "pkcs11";  // provider and engine have the same name

#ifndef OPENSSL_NO_ENGINE
// Loaded once and kept to the process's end: each time that it is unloaded it loses some memory,
// and a server seals more than once.
ENGINE* tokens() {
  static ENGINE* const engine = [] {
    OPENSSL_init_crypto(OPENSSL_INIT_ENGINE_DYNAMIC, nullptr);
    return ENGINE_by_id(kTokens);
  }();
  return engine;
}
#endif

}  // namespace

CryptoOwned<EVP_PKEY> firstKey(const std::string& place) {
  CryptoOwned<EVP_PKEY> key;
  OSSL_STORE_CTX* store = OSSL_STORE_open(place.c_str(), UI_OpenSSL(), nullptr, nullptr, nullptr);
  while (store != nullptr && key == nullptr && OSSL_STORE_eof(store) == 0) {
    OSSL_STORE_INFO* info = OSSL_STORE_load(store);
    if (info == nullptr && OSSL_STORE_error(store) != 0) break;
    if (info != nullptr && OSSL_STORE_INFO_get_type(info) == OSSL_STORE_INFO_PKEY)
      key.reset(OSSL_STORE_INFO_get1_PKEY(info));
    OSSL_STORE_INFO_free(info);
  }
  if (store != nullptr) OSSL_STORE_close(store);
  return key;
}

bool TokenKey::isAddress(const std::string& place) {
  return place.compare(0, sizeof kTokenScheme - 1, kTokenScheme) == 0;
}

CryptoOwned<EVP_PKEY> TokenKey::load(const std::string& address, std::string* error) {
  // Where the configuration does not name it, it may still be installed. What else is worked with
  // stays there as it is.
  constexpr int kKeepOthers = 1;
  provider_.reset(OSSL_PROVIDER_try_load(nullptr, kTokens, kKeepOthers));
  ERR_clear_error();
  CryptoOwned<EVP_PKEY> key = firstKey(address);
  if (key != nullptr) return key;
  *error = cryptoError();
  ERR_clear_error();
  key = loadFromEngine(address);
  // Of an engine that is not there nothing is to be told.
  if (key == nullptr && engine_ != nullptr) *error = cryptoError();
  return key;
}

#ifndef OPENSSL_NO_ENGINE
CryptoOwned<EVP_PKEY> TokenKey::loadFromEngine(const std::string& address) {
  ENGINE* const engine = tokens();
  if (engine == nullptr) return nullptr;
  // It would show what it cannot find on standard error, and the PIN with it.
  ENGINE_ctrl_cmd_string(engine, "QUIET", nullptr, 1);
  if (ENGINE_init(engine) != 1) return nullptr;
  engine_ = engine;
  return CryptoOwned<EVP_PKEY>(
      ENGINE_load_private_key(engine, address.c_str(), UI_OpenSSL(), nullptr));
}

TokenKey::~TokenKey() {
  if (engine_ != nullptr) ENGINE_finish(engine_);
}
#else
CryptoOwned<EVP_PKEY> TokenKey::loadFromEngine(const std::string&) { return nullptr; }

TokenKey::~TokenKey() = default;
#endif

}  // namespace tarn
