#include "media/seal/FileVerifier.h"

#include <openssl/err.h>
#include <openssl/x509_vfy.h>

#include <algorithm>
#include <cstdio>
#include <ctime>

#include "media/seal/Crypto.h"
#include "media/seal/SealedFile.h"

namespace tarn {
namespace {

constexpr int kMostKeyBits = 16384;

template <class Bytes>
std::string hexOf(const Bytes& bytes) {
  std::string text;
  char digits[3];
  for (const uint8_t byte : bytes) {
    snprintf(digits, sizeof digits, "%02x", byte);
    text += digits;
  }
  return text;
}

std::string nameText(const X509_NAME* name) {
  const CryptoOwned<BIO> out(BIO_new(BIO_s_mem()));
  char* data = nullptr;
  if (out == nullptr ||
      X509_NAME_print_ex(out.get(), name, 0, XN_FLAG_RFC2253 & ~ASN1_STRFLGS_ESC_MSB) < 0)
    return "";
  const long size = BIO_get_mem_data(out.get(), &data);
  return size > 0 ? std::string(data, static_cast<size_t>(size)) : "";
}

std::string timeText(const ASN1_TIME* time) {
  tm utc{};
  return ASN1_TIME_to_tm(time, &utc) == 1 ? utcText(timegm(&utc)) : "";
}

// Of "YYYY-MM-DDTHH:MM:SSZ"; `otherwise` where there is no such text.
time_t secondsOf(const std::string& text, time_t otherwise) {
  tm utc{};
  const char* end = strptime(text.c_str(), "%Y-%m-%dT%H:%M:%SZ", &utc);
  return end != nullptr && *end == '\0' ? timegm(&utc) : otherwise;
}

void describe(X509* certificate, const std::vector<uint8_t>& der, SealProof* proof) {
  Digest digest;
  digest.add(der.data(), der.size());
  Digest::Value value{};
  if (digest.finish(&value)) proof->fingerprint = hexOf(value);
  proof->holder = nameText(X509_get_subject_name(certificate));
  proof->issuer = nameText(X509_get_issuer_name(certificate));
  proof->notBefore = timeText(X509_get0_notBefore(certificate));
  proof->notAfter = timeText(X509_get0_notAfter(certificate));
}

// "" where the seal fits what it was put on.
std::string whyNot(const SealedFile::Seal& seal, X509* certificate, const Digest::Value& digest) {
  if (seal.otherAlgorithm) return "it is sealed in a way that is not known here";
  EVP_PKEY* key = certificate == nullptr ? nullptr : X509_get0_pubkey(certificate);
  if (key == nullptr) return "the certificate in it cannot be read";
  if (!isUsableKey(key) || EVP_PKEY_get_bits(key) > kMostKeyBits)
    return "the key that sealed it is none that proves anything";
  return signatureFits(key, digest, seal.signature) ? "" : "it was changed since it was sealed";
}

}  // namespace

bool FileProof::proven() const {
  return readable && error.empty() && !seals.empty() &&
         std::all_of(seals.begin(), seals.end(), [](const SealProof& seal) { return seal.good(); });
}

class FileVerifier::Impl {
 public:
  bool trust(const std::string& path, std::string* error);
  FileProof verify(const std::string& path, const FileProgress& progress) const;

 private:
  SealProof prove(const SealedFile::Seal& seal, const Digest::Value& digest,
                  const std::string& exported) const;
  void follow(X509* certificate, time_t when, SealProof* proof) const;

  CryptoOwned<X509_STORE> store_;
};

bool FileVerifier::Impl::trust(const std::string& path, std::string* error) {
  ERR_clear_error();
  if (store_ == nullptr) store_.reset(X509_STORE_new());
  if (store_ != nullptr && X509_STORE_load_file(store_.get(), path.c_str()) == 1) return true;
  *error = path + ": no certificates can be read from it: " + cryptoError();
  return false;
}

// A certificate may have run out since: it counts whether it was good when it was used.
void FileVerifier::Impl::follow(X509* certificate, time_t when, SealProof* proof) const {
  if (store_ == nullptr) return;
  proof->chain = SealProof::Chain::kNotTrusted;
  proof->chainReason = "out of memory";
  const CryptoOwned<X509_STORE_CTX> context(X509_STORE_CTX_new());
  if (context == nullptr ||
      X509_STORE_CTX_init(context.get(), store_.get(), certificate, nullptr) != 1)
    return;
  X509_STORE_CTX_set_time(context.get(), 0, when);
  X509_STORE_CTX_set_flags(context.get(), X509_V_FLAG_PARTIAL_CHAIN);
  const bool good = X509_verify_cert(context.get()) == 1;
  proof->chainReason =
      good ? "" : X509_verify_cert_error_string(X509_STORE_CTX_get_error(context.get()));
  if (good) proof->chain = SealProof::Chain::kTrusted;
  ERR_clear_error();
}

SealProof FileVerifier::Impl::prove(const SealedFile::Seal& seal, const Digest::Value& digest,
                                    const std::string& exported) const {
  SealProof proof;
  proof.digest = hexOf(digest);
  proof.time = wordOf(seal.words, "sealed");
  if (proof.time.empty()) proof.time = exported;
  proof.operatorName = wordOf(seal.words, "operator");
  proof.note = wordOf(seal.words, "note");
  const uint8_t* data = seal.certificate.data();
  CryptoOwned<X509> certificate(
      d2i_X509(nullptr, &data, static_cast<long>(seal.certificate.size())));
  if (certificate != nullptr && data != seal.certificate.data() + seal.certificate.size())
    certificate.reset();
  ERR_clear_error();
  if (certificate != nullptr) describe(certificate.get(), seal.certificate, &proof);
  proof.reason = whyNot(seal, certificate.get(), digest);
  proof.unchanged = proof.reason.empty();
  if (proof.unchanged) follow(certificate.get(), secondsOf(proof.time, time(nullptr)), &proof);
  return proof;
}

FileProof FileVerifier::Impl::verify(const std::string& path, const FileProgress& progress) const {
  FileProof proof;
  SealedFile file;
  const SealedFile::State state = file.open(path);
  std::vector<Digest::Value> digests;
  const bool good = state == SealedFile::State::kSealed && file.digests(&digests, progress);
  proof.readable = good || state == SealedFile::State::kBroken;
  if (!good) {
    proof.error = file.error();
    return proof;
  }
  const ExportStatement& statement = file.statement();
  proof.unit = statement.unitName;
  proof.operatorName = statement.operatorName;
  if (statement.time != 0 && statement.time < uint64_t{1} << 40)
    proof.exported = utcText(static_cast<int64_t>(statement.time) - kSecondsFrom1904);
  for (const ExportStatement::Source& source : statement.sources)
    proof.sources.push_back({source.track, source.name, source.line, 0});
  for (size_t i = 0; i < digests.size(); ++i)
    proof.seals.push_back(
        prove(file.seals()[i], digests[i], i == 0 ? proof.exported : std::string()));
  // A later seal may correct the times of an earlier one.
  for (FileProof::Source& source : proof.sources) {
    for (const SealedFile::Seal& seal : file.seals()) {
      for (const TrackStart& start : seal.starts) {
        if (start.track == source.track && start.time < uint64_t{1} << 62)
          source.startUs = static_cast<int64_t>(start.time / 10) - kSecondsFrom1601 * 1000000;
      }
    }
  }
  return proof;
}

FileVerifier::FileVerifier() : impl_(std::make_unique<Impl>()) {}
FileVerifier::~FileVerifier() = default;
bool FileVerifier::trust(const std::string& path, std::string* error) {
  return impl_->trust(path, error);
}
FileProof FileVerifier::verify(const std::string& path) const { return verify(path, {}); }

FileProof FileVerifier::verify(const std::string& path, const FileProgress& progress) const {
  return impl_->verify(path, progress);
}

}  // namespace tarn
