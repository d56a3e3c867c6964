#include "video/MakeDownload.h"

#include <utility>

#include "media/evidence/EvidenceExporter.h"
#include "media/export/MediaExporter.h"

namespace tarn {
namespace {

ExportRequest whatOf(const DownloadRequest& request) {
  ExportRequest what;
  what.from = PictureTime::fromMicros(request.fromUs);
  what.to = PictureTime::fromMicros(request.toUs);
  what.channel = request.channel;
  return what;
}

DownloadOutcome makeEvidence(const DownloadRequest& request, const std::optional<SealRequest>& seal,
                             const StopAsked& stopAsked) {
  EvidenceRequest evidence;
  evidence.what = whatOf(request);
  evidence.folder = request.folder + "/" + request.name;
  evidence.seal = seal;
  EvidenceExporter exporter(evidence);
  // There is a folder that tells what it lacks when nothing is said of why there is none.
  const bool made = exporter.run(stopAsked) || *exporter.error() == '\0';
  return {made, exporter.error(), exporter.missing()};
}

void noteMissing(const ExportedChannel& channel, std::vector<std::string>* missing) {
  if (channel.totals.lost > 0)
    missing->push_back(std::to_string(channel.totals.lost) + " pictures could not be read");
  if (channel.sound.lost > 0)
    missing->push_back(std::to_string(channel.sound.lost) + " blocks of sound could not be read");
}

DownloadOutcome makeMovie(const DownloadRequest& request, const std::optional<SealRequest>& seal,
                          const StopAsked& stopAsked) {
  ExportRequest what = whatOf(request);
  what.output = request.folder + "/" + request.name + (request.quickTime ? ".mov" : ".mp4");
  MediaExporter exporter(what);
  if (seal) exporter.seal(*seal);
  exporter.run(stopAsked);
  DownloadOutcome outcome = {*exporter.error() == '\0', exporter.error(), {}};
  for (const ExportedChannel& channel : exporter.channels()) {
    noteMissing(channel, &outcome.missing);
    if (channel.error.empty()) continue;
    outcome.made = false;
    outcome.error = channel.error;
  }
  return outcome;
}

}  // namespace

DownloadMaker downloadMaker(const std::optional<SealRequest>& seal) {
  return [seal](const DownloadRequest& request, const StopAsked& stopAsked) {
    return request.evidence ? makeEvidence(request, seal, stopAsked)
                            : makeMovie(request, seal, stopAsked);
  };
}

}  // namespace tarn
