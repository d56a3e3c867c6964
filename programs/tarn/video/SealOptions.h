#pragma once

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

#include "media/seal/SealRequest.h"

namespace tarn {

// The options that say who seals a file and with what.
class SealOptions {
 public:
  void addTo(CLI::App* app, bool required) {
    CLI::Option* key =
        app->add_option(
               "--seal", request_.key,
               "seal the file with this private RSA key: a file, or the pkcs11: address of "
               "one in a token")
            ->type_name("KEY");
    CLI::Option* certificate = app->add_option("--certificate", request_.certificate,
                                               "the certificate of that key, PEM or DER")
                                   ->type_name("FILE");
    key->needs(certificate)->required(required);
    certificate->needs(key)->required(required);
    app->add_option("--operator", request_.operatorName, "who seals it, in the file for good")
        ->needs(key)
        ->type_name("NAME");
    app->add_option("--note", request_.note, "a note, in the file for good")
        ->needs(key)
        ->type_name("TEXT");
  }

  bool asked() const { return !request_.key.empty(); }
  const SealRequest& request() const { return request_; }
  // Those that are files.
  std::vector<std::string*> paths() {
    std::vector<std::string*> paths = {&request_.certificate};
    if (request_.key.compare(0, 7, "pkcs11:") != 0) paths.push_back(&request_.key);
    return paths;
  }

 private:
  SealRequest request_;
};

}  // namespace tarn
