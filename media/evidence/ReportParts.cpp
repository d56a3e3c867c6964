// The parts of a report but for its minutes.
#include <algorithm>
#include <cstdio>

#include "media/evidence/HtmlText.h"
#include "media/evidence/Report.h"
#include "recorder/card/CardInfo.h"
#include "recorder/card/CardText.h"
#include "recorder/recording/SoundFormat.h"

namespace tarn {
namespace {

// No address of anywhere, no script: also where a text should find a way to ask for one.
constexpr char kHead[] =
    "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">\n"
    "<meta http-equiv=\"Content-Security-Policy\" content=\"default-src 'none'; img-src data:; "
    "style-src 'unsafe-inline'\">\n<title>Evidence</title>\n<style>\n"
    "body{font:15px/1.45 sans-serif;margin:2em auto;max-width:75em;padding:0 1em;color:#1b1b1b;"
    "background:#fff}\n"
    "table{border-collapse:collapse;margin:.5em 0}th,td{border:1px solid #ccc;padding:.25em .6em;"
    "text-align:left;vertical-align:top}\n"
    "code,pre{font:13px/1.4 monospace;background:#f3f3f3}pre{padding:.7em;overflow:auto}\n"
    "figure{margin:0}figcaption{font-size:12px}.log{font:12px/1.4 "
    "monospace;overflow-wrap:anywhere}\n"
    ".none{width:160px;color:#a00}.bad{color:#a00;font-weight:bold}.good{color:#0a5c26}\n"
    "svg{width:100%;height:3.4em}.rec{fill:#2f7d4f}.gap{fill:#d9d9d9}.damaged,.unreadable{"
    "fill:#c0392b}.interrupted{fill:#e67e22}.overwritten{fill:#8e6bbf}.unknown{fill:#999}"
    ".event{fill:#1f4fd8}svg text{font-size:11px}\n"
    "</style></head><body>\n";

constexpr double kWidth = 1000;

std::string cell(const std::string& text) { return "<td><bdi>" + htmlText(text) + "</bdi></td>"; }

std::string row(const char* name, const std::string& value) {
  return "<tr><th>" + htmlText(name) + "</th>" + cell(value) + "</tr>\n";
}

std::string rectangle(double from, double to, const char* kind, const std::string& title) {
  char text[160];
  snprintf(text, sizeof text, "<rect x=\"%.2f\" y=\"4\" width=\"%.2f\" height=\"22\" class=\"%s\">",
           from, std::max(to - from, 0.6), kind);
  return text + ("<title>" + htmlText(title) + "</title></rect>");
}

std::string duration(int64_t us) {
  char text[48];
  snprintf(text, sizeof text, "%lld.%03d s", static_cast<long long>(us / 1000000),
           static_cast<int>(us / 1000 % 1000));
  return text;
}

const char* reasonText(GapReason reason) {
  switch (reason) {
    case GapReason::kNoRecording:
      return "no recording";
    case GapReason::kOverwritten:
      return "overwritten";
    case GapReason::kInterrupted:
      return "interrupted";
    case GapReason::kDamaged:
      return "damaged";
    case GapReason::kUnreadable:
      return "not given by the card";
    case GapReason::kUnknown:
      break;
  }
  return "unknown";
}

}  // namespace

void Report::addHead() {
  page_ += kHead;
  page_ += "<h1>Evidence: " + htmlText(evidenceTime(story_.fromUs)) + " to " +
           htmlText(evidenceTime(story_.toUs)) + "</h1>\n<table>\n";
  page_ += row("made", evidenceTime(making_.madeUs) + ", by this machine's clock");
  page_ += row("by", making_.operatorName) + row("note", making_.note);
  page_ += row("on", making_.unit) + row("with", making_.tool);
  page_ += row("times are shown in", making_.zone + ", with the offset from UTC at each");
  for (const EvidenceLogLine& line : story_.clockSteps) page_ += row("clock step", line.text);
  page_ += "</table>\n";
  if (missing_.empty()) return;
  page_ += "<h2 class=\"bad\">What is missing</h2>\n<ul>\n";
  for (const std::string& one : missing_) page_ += "<li><bdi>" + htmlText(one) + "</bdi></li>\n";
  page_ += "</ul>\n";
}

void Report::addCard() {
  char serial[16];
  snprintf(serial, sizeof serial, "%04X-%04X", static_cast<unsigned>(card_.volumeId() >> 16),
           static_cast<unsigned>(card_.volumeId() & 0xFFFF));
  page_ += "<h2>The card</h2>\n<table>\n" + row("volume ID", serial) + row("label", card_.label());
  page_ += row("size", std::to_string(card_.deviceBytes()) + " bytes");
  if (making_.card)
    page_ += row("SHA-256 of the whole", making_.card->sha256 + ", " +
                                             std::to_string(making_.card->bytes) + " bytes of " +
                                             making_.card->name);
  page_ += row("cluster", sizeText(card_.clusterBytes()));
  for (int type = 0; type < kFileTypeCount; ++type) {
    const CardFamily& family = card_.family(type);
    page_ += row(CardLayout::familyName(type), std::to_string(family.chunks) + " of " +
                                                   sizeText(family.chunkSize) + ", from byte " +
                                                   std::to_string(family.startByte()));
  }
  page_ += "</table>\n";
}

double Report::placeOf(int64_t us) const {
  const int64_t inside = std::clamp(us, story_.fromUs, story_.toUs) - story_.fromUs;
  return kWidth * static_cast<double>(inside) /
         static_cast<double>(std::max<int64_t>(story_.toUs - story_.fromUs, 1));
}

void Report::addChannelLine(const EvidenceChannel& channel) {
  page_ += "<h3>" + htmlText(channelText(channel.channel)) +
           "</h3>\n<svg viewBox=\"0 0 1000 44\" preserveAspectRatio=\"none\" role=\"img\">";
  const bool any = std::any_of(
      channel.recordings.begin(), channel.recordings.end(),
      [](const EvidenceRecording& one) { return one.pictures != 0 && !isSound(one.row); });
  page_ += rectangle(0, kWidth, any ? "rec" : "gap", any ? "recorded" : "nothing recorded");
  for (const EvidenceGap& gap : channel.gaps)
    page_ +=
        rectangle(placeOf(gap.fromUs), placeOf(gap.toUs),
                  gap.reason == GapReason::kNoRecording ? "gap" : gapReasonName(gap.reason),
                  evidenceTime(gap.fromUs) + " to " + evidenceTime(gap.toUs) + ": " + gap.text);
  for (const DB_EVENT& event : story_.events) {
    const int64_t at = PictureTime{event.startDate, event.startMSec * 1000u}.totalMicros();
    page_ += rectangle(placeOf(at), placeOf(at) + 1.5, "event",
                       "event " + std::to_string(event.eventID) + ", " + evidenceTime(at));
  }
  page_ += "</svg>\n";
}

void Report::addTimeline() {
  page_ +=
      "<h2>Timeline</h2>\n<p>From " + htmlText(evidenceTime(story_.fromUs)) + " (left) to " +
      htmlText(evidenceTime(story_.toUs)) +
      " (right). Green: pictures. Grey: no recording. Purple: overwritten. Orange: interrupted. "
      "Red: damaged, or not given by the card. Dark grey: unknown. Blue marks: events.</p>\n";
  for (const EvidenceChannel& channel : story_.channels) addChannelLine(channel);
}

void Report::addGaps() {
  page_ +=
      "<h2>Gaps</h2>\n<p>All stretches of more than two seconds without a picture.</p>\n<table>"
      "<tr><th>channel</th><th>from</th><th>to</th><th>length</th><th>reason</th><th></th></tr>\n";
  for (const EvidenceChannel& channel : story_.channels) {
    for (const EvidenceGap& gap : channel.gaps)
      page_ += "<tr>" + cell(channelText(channel.channel)) + cell(evidenceTime(gap.fromUs)) +
               cell(evidenceTime(gap.toUs)) + cell(duration(gap.toUs - gap.fromUs)) +
               cell(reasonText(gap.reason)) + cell(gap.text) + "</tr>\n";
  }
  page_ += "</table>\n";
}

void Report::addEvents() {
  page_ +=
      "<h2>Events</h2>\n<table><tr><th>event</th><th>trigger</th><th>start</th><th>end</th></tr>\n";
  for (const DB_EVENT& event : story_.events) {
    const PictureTime start = {event.startDate, event.startMSec * 1000u};
    const PictureTime end = {event.endDate, event.endMSec * 1000u};
    page_ += "<tr>" + cell(std::to_string(event.eventID)) + cell(std::to_string(event.extTrg)) +
             cell(evidenceTime(start.totalMicros())) +
             cell(event.endDate == 0 ? "runs" : evidenceTime(end.totalMicros())) + "</tr>\n";
  }
  page_ += "</table>\n";
}

void Report::addRecordings() {
  page_ +=
      "<h2>Recordings</h2>\n<table><tr><th>channel</th><th>recording</th><th>of</th><th>pieces in "
      "the period</th><th>first</th><th>last</th><th>damaged</th><th>not given</th></tr>\n";
  for (const EvidenceChannel& channel : story_.channels) {
    for (const EvidenceRecording& one : channel.recordings)
      page_ += "<tr>" + cell(channelText(channel.channel)) +
               cell(std::to_string(one.row.streamID)) +
               cell(isSound(one.row) ? "sound" : "pictures") +
               cell(one.readable ? std::to_string(one.pictures) : "cannot be read") +
               cell(one.pictures == 0 ? "" : evidenceTime(one.first.totalMicros())) +
               cell(one.pictures == 0 ? "" : evidenceTime(one.last.totalMicros())) +
               cell(std::to_string(one.damaged)) + cell(std::to_string(one.unreadable)) + "</tr>\n";
  }
  page_ +=
      "</table>\n<h3>In the files</h3>\n<table><tr><th>file</th><th>pictures</th><th>damaged</th>"
      "<th>lost</th><th>left out: no key picture</th></tr>\n";
  for (const EvidenceChannel& channel : story_.channels) {
    for (const ExportedChannel& video : channel.videos) {
      const ExportTotals& totals = video.totals;
      page_ +=
          "<tr>" +
          cell(video.error.empty() ? video.path
                                   : channelText(channel.channel) + ": no file: " + video.error) +
          cell(std::to_string(totals.written)) + cell(std::to_string(totals.damaged)) +
          cell(std::to_string(totals.lost)) + cell(std::to_string(totals.undecodable)) + "</tr>\n";
    }
  }
  page_ += "</table>\n";
}

void Report::addProof() {
  page_ += "<h2>Proof</h2>\n";
  if (!making_.sealed) {
    page_ +=
        "<p class=\"bad\">Nothing here is sealed: no key was given. Whoever had this folder may "
        "have "
        "changed all of it; SHA256SUMS only shows what went wrong in copying.</p>\n";
    return;
  }
  page_ +=
      "<p>What verifying said when this folder was made; do it again, "
      "below.</p>\n<table><tr><th>file"
      "</th><th>verified</th><th>sealed by</th><th>certificate, SHA-256</th></tr>\n";
  for (const ReportedProof& one : proofs_) {
    const bool good = one.proof.proven();
    page_ += "<tr>" + cell(one.file) + "<td class=\"" + (good ? "good" : "bad") + "\">" +
             (good ? "unchanged since it was sealed" : "NOT PROVEN") + "</td>";
    for (const SealProof& seal : one.proof.seals)
      page_ += cell(seal.holder + ", " + seal.time) + cell(seal.fingerprint);
    page_ += "</tr>\n";
  }
  page_ +=
      "</table>\n<p>SHA256SUMS.sig signs SHA256SUMS, and with it every other file here, this one "
      "too.</p>\n";
}

void Report::addByHand() {
  page_ +=
      "<h2>Verify it yourself</h2>\n<p>In this folder; nothing of it needs a recorder.</p>\n<pre>"
      "sha256sum --check --strict SHA256SUMS\n";
  if (making_.sealed)
    page_ +=
        "openssl x509 -in certificate.pem -pubkey -noout &gt;/tmp/sealer.pub\n"
        "openssl dgst -sha256 -sigopt rsa_padding_mode:pss -sigopt rsa_pss_saltlen:20 "
        "-verify /tmp/sealer.pub -signature SHA256SUMS.sig SHA256SUMS\n"
        "openssl x509 -in certificate.pem -noout -subject -fingerprint -sha256\n"
        "tarn verify video/*\n";
  page_ +=
      "</pre>\n<p>The certificate proves as much as you know about it: compare its fingerprint "
      "with "
      "what you were told by another way, or name the authority that you believe: <code>tarn "
      "verify "
      "--ca authority.pem video/*</code>. README.txt says what each file holds.</p>\n";
}

}  // namespace tarn
