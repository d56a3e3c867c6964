// A program against all of the interface: it includes what is installed, and needs from the
// libraries what an object of each public class needs. It has no card, so it only says who it is.
#include "everything.h"

#include <cstdio>

template <class T>
void make() {
  T object{};
  static_cast<void>(object);
}

// Never called: what matters is that it links.
void makeAll() {
  make<CFATAccess>();
  make<CTARNChunkBase>();
  CTARNStreamChunk stream(0);
  CTARNEndlessChunk ring(0);
  make<CTARNSyslogChunk>();
  CTARNMirroredChunk mirrored(0);
  make<CTARNDBChunk>();
  make<CTARNManagerBase>();
  CTARNStreamManager streams(0);
  CTARNSyslogManager logs(0);
  CTARNEndlessManager journal(0, 0);
  make<CTARNStreamManagerNative>();
  CTARNEndlessManagerNative log(0);
  make<CApiDb>();
  make<CDbRestore>();
  CApiTarnSyslogRead reader(0);
  make<tarn::RequestPatience>();
  make<tarn::CardFormatter>();
  make<tarn::CardInfo>();
  make<tarn::CardLayout>();
  make<tarn::CardRepair>();
  make<tarn::CardCheck>();
  make<tarn::RecordingSession>();
  make<tarn::SoundSession>();
  make<tarn::SoundBlock>();
  tarn::soundCodecText(tarn::SoundCodec::kOpus);
  make<tarn::EventKeeper>();
  make<tarn::KeptCopies>();
  make<tarn::RedatingReversal>();
  tarn::RedatingRecord().parse("");
  make<tarn::ChunkChannels>();
  tarn::PictureClock clock(tarn::PictureClock::Stamps::kOfSource, 0);
  clock.restart();
  tarn::ClockWatch(tarn::ClockWatch::read()).look({});
  tarn::PictureQueue().markDiscontinuity();
  make<tarn::RecordingReader>();
  make<tarn::LogWriter>();
  make<tarn::Recovery>();
  make<tarn::ManagementServer>();
  CMesgServer server("", 0, 0);
  CMesgClient client("");
  CDbLog::getInstance()->finish();
  tarn::waitForServerForever(true);
  tarn::cardHoldings("");
  tarn::parseLogLine("");
#ifdef WITH_MEDIA
  tarn::LivePictures(&clock).end();
  std::string error;
  tarn::MediaInput::open(
      "", 0, [] { return false; }, &error);
  tarn::MediaOutput::create("", false, &error);
  tarn::RecordRequest request;
  tarn::checkRecordRequest(request, &error);
  tarn::readRecordConfig("", &request, &error);
  tarn::RecordListener listener;
  tarn::MediaRecorder(request, &listener).run();
  tarn::SafetyWatch(tarn::SafetyWatch::limitOfManager(), 0).look(0, 0);
  tarn::MediaExporter(tarn::ExportRequest()).run();
#endif
}

int main(int argc, char**) {
  if (argc > 1) makeAll();
  std::puts(tarn_version());
}
