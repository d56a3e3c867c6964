// Minutes with their pictures and log lines; the other parts are in ReportParts.cpp.
#include "media/evidence/Report.h"

#include <openssl/evp.h>

#include <algorithm>
#include <set>

#include "media/evidence/HtmlText.h"
#include "recorder/card/CardInfo.h"

namespace tarn {
namespace {

constexpr int64_t kMinuteUs = 60000000;
constexpr uint32_t kPictureWidth = 160;
constexpr size_t kFlushBytes = size_t{256} * 1024;

std::string base64(const std::string& bytes) {
  std::string text(4 * ((bytes.size() + 2) / 3) + 1, '\0');
  const int length = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()),
                                     reinterpret_cast<const unsigned char*>(bytes.data()),
                                     static_cast<int>(bytes.size()));
  text.resize(static_cast<size_t>(length));
  return text;
}

// A line without a time stands with the one before it.
std::set<int64_t> minutesOf(const EvidenceStory& story) {
  std::set<int64_t> minutes;
  for (const EvidenceChannel& channel : story.channels) {
    for (const EvidencePicture& one : channel.minutes)
      minutes.insert(one.time.totalMicros() / kMinuteUs);
  }
  for (const EvidenceLogLine& line : story.log) {
    if (line.seconds >= 0) minutes.insert(line.seconds * 1000000 / kMinuteUs);
  }
  return minutes;
}

}  // namespace

bool Report::flush() {
  const bool good = file_.write(reinterpret_cast<const uint8_t*>(page_.data()), page_.size());
  page_.clear();
  if (!good) error_ = file_.error();
  return good;
}

void Report::addPicture(const EvidencePicture& picture) {
  PictureEntry entry;
  std::vector<uint8_t> annexB;
  const bool open = reader_.isOpen() && reader_.row().streamID == picture.row.streamID;
  const bool read = (open || reader_.open(picture.row) == 0) &&
                    reader_.picture(picture.index, &entry) && reader_.readPicture(entry, &annexB);
  const auto jpeg =
      read ? thumbnails_.make(picture.row.streamID, picture.index, kPictureWidth, annexB) : nullptr;
  const std::string time = evidenceTime(picture.time.totalMicros());
  page_ += "<figure>";
  if (jpeg != nullptr)
    page_ += "<img alt=\"\" src=\"data:image/jpeg;base64," + base64(*jpeg) + "\">";
  else
    page_ += std::string("<div class=\"none\">this picture cannot be ") +
             (read ? "decoded" : "read") + "</div>";
  page_ += "<figcaption>" + htmlText(time) + "</figcaption></figure>";
}

// The lines of the log are in the order of the card: those of a minute may be in several places.
bool Report::addMinute(int64_t minute, size_t* line) {
  page_ += "<tr><th>" + htmlText(evidenceTime(minute * kMinuteUs)) + "</th>";
  for (size_t i = 0; i < story_.channels.size(); ++i) {
    const std::vector<EvidencePicture>& pictures = story_.channels[i].minutes;
    page_ += "<td>";
    for (;
         next_[i] < pictures.size() && pictures[next_[i]].time.totalMicros() / kMinuteUs <= minute;
         ++next_[i])
      addPicture(pictures[next_[i]]);
    page_ += "</td>";
  }
  page_ += "<td class=\"log\">";
  for (; *line < story_.log.size(); ++*line) {
    const EvidenceLogLine& one = story_.log[*line];
    if (one.seconds >= 0 && one.seconds * 1000000 / kMinuteUs > minute) break;
    page_ += "<div><bdi>" + htmlText(one.text) + "</bdi></div>";
  }
  page_ += "</td></tr>\n";
  return page_.size() < kFlushBytes || flush();
}

bool Report::addMinutes(const StopAsked& stopAsked) {
  page_ +=
      "<h2>Minute by minute</h2>\n<p>The first picture of each minute that can be decoded "
      "alone, and what the system log on the card says.";
  if (!story_.logError.empty()) page_ += " <b>" + htmlText(story_.logError) + ".</b>";
  page_ += "</p>\n<table><tr><th>minute</th>";
  for (const EvidenceChannel& channel : story_.channels)
    page_ += "<th>" + htmlText(channelText(channel.channel)) + "</th>";
  page_ += "<th>system log</th></tr>\n";
  next_.assign(story_.channels.size(), 0);
  size_t line = 0;
  for (const int64_t minute : minutesOf(story_)) {
    if (!addMinute(minute, &line)) return false;
    if (!stopAsked || !stopAsked()) continue;
    error_ = "stopped before its end";
    return false;
  }
  page_ += "</table>\n";
  return true;
}

bool Report::write(const std::string& path, const StopAsked& stopAsked) {
  if (!file_.open(path)) {
    error_ = file_.error();
    return false;
  }
  addHead();
  addProof();
  addTimeline();
  addGaps();
  addEvents();
  addRecordings();
  addCard();
  addByHand();
  if (!addMinutes(stopAsked)) return false;
  page_ += "</body></html>\n";
  if (!flush()) return false;
  if (file_.close()) return true;
  error_ = file_.error();
  return false;
}

}  // namespace tarn
