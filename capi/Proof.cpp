#include <filesystem>

#include "capi/Guard.h"
#include "capi/Handles.h"

struct tarn_proof {
  tarn::ProofFacts facts;
  tarn_proof_facts row = {};
  tarn::RowsOf<tarn::SealFacts, tarn_seal> seals;
  tarn::RowsOf<tarn::SourceFacts, tarn_source> sources;
};

namespace tarn {
namespace {

bool addSeal(const Message& answer, tarn_proof* proof) {
  const SealFacts& facts = proof->seals.facts.emplace_back();
  if (!answer.take(&proof->seals.facts.back())) return false;
  tarn_seal& row = proof->seals.rows.emplace_back();
  row = {};
  row.proven = facts.proven ? 1 : 0;
  row.unchanged = facts.unchanged ? 1 : 0;
  row.trusted = facts.trusted;
  row.reason = facts.reason.c_str();
  row.holder = facts.holder.c_str();
  row.issuer = facts.issuer.c_str();
  row.fingerprint = facts.fingerprint.c_str();
  row.time = facts.time.c_str();
  row.operator_name = facts.operatorName.c_str();
  row.note = facts.note.c_str();
  return true;
}

bool addSource(const Message& answer, tarn_proof* proof) {
  const SourceFacts& facts = proof->sources.facts.emplace_back();
  if (!answer.take(&proof->sources.facts.back())) return false;
  tarn_source& row = proof->sources.rows.emplace_back();
  row = {};
  row.track = facts.track;
  row.name = facts.name.c_str();
  row.start_us = facts.startUs;
  return true;
}

bool add(const Message& answer, tarn_proof* proof) {
  switch (answer.kind) {
    case MessageKind::kProof:
      return answer.take(&proof->facts);
    case MessageKind::kSeal:
      return addSeal(answer, proof);
    case MessageKind::kSource:
      return addSource(answer, proof);
    default:
      return false;
  }
}

void finish(tarn_proof* proof) {
  const ProofFacts& facts = proof->facts;
  tarn_proof_facts& row = proof->row;
  row.proven = facts.proven ? 1 : 0;
  row.sealed = facts.sealed ? 1 : 0;
  row.error = facts.error.c_str();
  row.unit = facts.unit.c_str();
  row.exported = facts.exported.c_str();
  row.operator_name = facts.operatorName.c_str();
  row.seals = proof->seals.rows.size();
  row.sources = proof->sources.rows.size();
}

}  // namespace
}  // namespace tarn

tarn_proof* tarn_verify(const char* path, const char* const* authorities, size_t count) {
  return tarn::guarded<tarn_proof*>(nullptr, [&]() -> tarn_proof* {
    if (!tarn::isGiven(path, "path of a file")) return nullptr;
    if (count != 0 && !tarn::isGiven(authorities, "authorities")) return nullptr;
    tarn::VerifyQuestion question;
    question.path = std::filesystem::absolute(path).string();
    for (size_t i = 0; i < count; ++i) {
      if (!tarn::isGiven(authorities[i], "path of an authority")) return nullptr;
      question.authorities.push_back(std::filesystem::absolute(authorities[i]).string());
    }
    const auto process = tarn::ReaderProcess::start({}, {"--no-card"}, &tarn::lastError());
    if (process == nullptr) return nullptr;
    auto proof = std::make_unique<tarn_proof>();
    tarn::Message done;
    const auto take = [&proof](const tarn::Message& answer) {
      return tarn::add(answer, proof.get());
    };
    const tarn::Message message(tarn::MessageKind::kVerify, question);
    if (!process->ask(message, take, &done, &tarn::lastError())) return nullptr;
    tarn::finish(proof.get());
    return proof.release();
  });
}

const tarn_proof_facts* tarn_proof_get(const tarn_proof* proof) {
  return proof != nullptr ? &proof->row : nullptr;
}

const tarn_seal* tarn_proof_seal(const tarn_proof* proof, size_t index) {
  return proof != nullptr ? proof->seals.get(index) : nullptr;
}

const tarn_source* tarn_proof_source(const tarn_proof* proof, size_t index) {
  return proof != nullptr ? proof->sources.get(index) : nullptr;
}

void tarn_proof_free(tarn_proof* proof) { delete proof; }
