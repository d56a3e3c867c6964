#include "media/serve/RowJson.h"

#include "recorder/card/ChunkChannels.h"
#include "recorder/recording/KeptRow.h"
#include "recorder/recording/SoundFormat.h"

namespace tarn {

void addRecording(JsonText* json, const ServedRecording& recording) {
  const DB_STREAM& row = recording.row;
  const bool sound = isSound(row);
  json->beginObject().key("recording").number(row.streamID).key("channel");
  recording.channel == ChunkChannels::kUnknown ? json->null() : json->number(recording.channel);
  json->key("kind").text(sound ? "sound" : "video");
  json->key("codec").text(sound ? soundCodecName(soundCodecOf(row)) : "h264");
  json->key("startMs").thousandths(recording.startUs()).key("endMs");
  recording.isRunning() ? json->null() : json->thousandths(recording.endUs());
  json->key("pictures");
  recording.isRunning() ? json->null() : json->number(row.recSize);
  json->key("trigger").number(row.inTrg).key("kept").boolean(isKept(row)).end();
}

void addEvent(JsonText* json, const DB_EVENT& event) {
  json->beginObject().key("event").number(event.eventID).key("trigger").number(event.extTrg);
  json->key("preSeconds").number(event.preSec).key("startMs").thousandths(startUs(event));
  json->key("endMs");
  event.endDate == 0 ? json->null() : json->thousandths(endUs(event));
  json->end();
}

}  // namespace tarn
