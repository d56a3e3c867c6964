#pragma once

#include <string>

namespace tarn {

// Who seals a file, and with what.
struct SealRequest {
  // The private RSA key, of 2048 bits or more: a file (PEM or DER; its passphrase is asked for), or
  // the pkcs11: address of one in a token, where OpenSSL has a provider for those.
  std::string key;
  std::string certificate;   // of that key: a file, PEM or DER
  std::string operatorName;  // UTF-8, as all texts; may be empty
  std::string note;
};

}  // namespace tarn
