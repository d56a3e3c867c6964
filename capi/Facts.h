#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "capi/tarn.h"

// What questions and answers hold (capi/Message.h). Each tells its fields once, in their order, to
// whoever writes or reads it. Times, and what stands for none, are those of capi/tarn.h.
namespace tarn {

struct HelloFacts {
  std::string version;  // of the tool
  template <typename To>
  void fields(To& to) {
    to(version);
  }
};

struct FailureFacts {
  std::string text;
  template <typename To>
  void fields(To& to) {
    to(text);
  }
};

struct ListQuestion {
  int64_t fromUs = TARN_NO_TIME;
  int64_t toUs = TARN_NO_TIME;
  int32_t channel = TARN_NO_CHANNEL;
  template <typename To>
  void fields(To& to) {
    to(fromUs, toUs, channel);
  }
};

struct RecordingFacts {
  uint32_t id = 0;
  int32_t channel = TARN_NO_CHANNEL;
  int32_t kind = TARN_VIDEO;
  int32_t state = TARN_COMPLETE;
  int64_t startUs = 0;
  int64_t endUs = TARN_NO_TIME;
  int32_t zoneSeconds = TARN_NO_ZONE;
  uint32_t trigger = 0;
  uint32_t pictures = 0;
  uint32_t copyOf = 0;
  bool kept = false;
  uint64_t bytes = 0;
  std::string codec;
  template <typename To>
  void fields(To& to) {
    to(id, channel, kind, state, startUs, endUs, zoneSeconds, trigger, pictures, copyOf, kept,
       bytes, codec);
  }
};

struct EventFacts {
  uint32_t id = 0;
  uint32_t trigger = 0;
  uint32_t preSeconds = 0;
  int32_t zoneSeconds = TARN_NO_ZONE;
  int64_t startUs = 0;
  int64_t endUs = TARN_NO_TIME;
  bool kept = false;
  template <typename To>
  void fields(To& to) {
    to(id, trigger, preSeconds, zoneSeconds, startUs, endUs, kept);
  }
};

// Where a reader is in its recording: all before this index is read.
struct ReadPlace {
  uint32_t index = 0;
  template <typename To>
  void fields(To& to) {
    to(index);
  }
};

struct ReadQuestion {
  uint32_t recording = 0;
  uint32_t index = 0;
  template <typename To>
  void fields(To& to) {
    to(recording, index);
  }
};

struct SeekQuestion {
  uint32_t recording = 0;
  int64_t timeUs = 0;
  template <typename To>
  void fields(To& to) {
    to(recording, timeUs);
  }
};

struct SampleFacts {
  uint32_t index = 0;
  int64_t timeUs = TARN_NO_TIME;
  int64_t decodeUs = TARN_NO_TIME;
  uint32_t flags = 0;
  uint32_t samples = 0;
  // Of sound.
  std::string codec;
  uint32_t channels = 0;
  uint32_t sampleRate = 0;
  std::vector<uint8_t> config;
  std::vector<uint8_t> bytes;
  template <typename To>
  void fields(To& to) {
    to(index, timeUs, decodeUs, flags, samples, codec, channels, sampleRate, config, bytes);
  }
};

struct ExportQuestion {
  uint32_t recording = 0;
  uint32_t event = 0;
  ListQuestion period;
  bool sound = true;
  bool tracks = false;
  bool overwrite = false;
  bool progress = false;  // whether anybody wants to know
  std::string key;
  std::string certificate;
  std::string operatorName;
  std::string note;
  std::string path;
  template <typename To>
  void fields(To& to) {
    period.fields(to);
    to(recording, event, sound, tracks, overwrite, progress, key, certificate, operatorName, note,
       path);
  }
};

struct ProgressFacts {
  uint64_t written = 0;
  template <typename To>
  void fields(To& to) {
    to(written);
  }
};

struct FileFacts {
  std::string path;
  int32_t channel = TARN_NO_CHANNEL;
  std::string error;
  uint64_t pictures = 0;
  uint64_t lost = 0;
  uint64_t damaged = 0;
  uint64_t leftOut = 0;
  uint64_t frames = 0;
  int64_t firstUs = TARN_NO_TIME;
  int64_t lastUs = TARN_NO_TIME;
  template <typename To>
  void fields(To& to) {
    to(path, channel, error, pictures, lost, damaged, leftOut, frames, firstUs, lastUs);
  }
};

struct VerifyQuestion {
  std::string path;
  std::vector<std::string> authorities;
  template <typename To>
  void fields(To& to) {
    to(path, authorities);
  }
};

struct ProofFacts {
  bool proven = false;
  bool sealed = false;
  std::string error;
  std::string unit;
  std::string exported;
  std::string operatorName;
  template <typename To>
  void fields(To& to) {
    to(proven, sealed, error, unit, exported, operatorName);
  }
};

struct SealFacts {
  bool proven = false;
  bool unchanged = false;
  int32_t trusted = -1;
  std::string reason;
  std::string holder;
  std::string issuer;
  std::string fingerprint;
  std::string time;
  std::string operatorName;
  std::string note;
  template <typename To>
  void fields(To& to) {
    to(proven, unchanged, trusted, reason, holder, issuer, fingerprint, time, operatorName, note);
  }
};

struct SourceFacts {
  uint32_t track = 0;
  std::string name;
  int64_t startUs = TARN_NO_TIME;
  template <typename To>
  void fields(To& to) {
    to(track, name, startUs);
  }
};

}  // namespace tarn
