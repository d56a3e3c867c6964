#pragma once

#include <string>

#include "base/Export.h"
#include "media/archive/ArchiveLine.h"

// How objects of an archive are called (docs/fleet.md). Dates and times are UTC. Not part of the
// interface.
namespace tarn {

inline constexpr char kSidecarEnding[] = ".json";
inline constexpr char kIndexName[] = "/index.jsonl.zst";
// What early archives have. It counts where a day has no other, and stays where it is.
inline constexpr char kPlainIndexName[] = "/index.jsonl";

inline constexpr char kErrRecorderName[] =
    "a recorder's name consists of letters, digits, - and _, 64 of them at most";

// Whether it can name a recorder in an archive: letters, digits, - and _, 64 at the most.
TARN_API bool isRecorderName(const std::string& name);
// "recorder=ID"
std::string folderOfRecorder(const std::string& recorder);
// "recorder=ID/date=2026-03-01", of a moment in milliseconds since 1970.
TARN_API std::string folderOfDay(const std::string& recorder, int64_t ms);
// The day's folder that an object lies in; "" for one that lies in none.
std::string dayOf(const std::string& object);
// What the clip of a line is called: FOLDER/ch=0/081929250-r12.mp4, of an event 081929250-e3.mp4;
// .mov where its sound does not go into an .mp4; of its second part 081929250-r12-2.mp4.
TARN_API std::string clipName(const ArchiveLine& line, bool quickTime);
// What another part of a clip is called, from 2.
std::string partName(const std::string& clip, uint32_t part);
// Whether a line's object may be one: in the folder of its recorder and day, and in no other place.
bool isClipName(const ArchiveLine& line);
TARN_API std::string sidecarOf(const std::string& clip);
bool endsIn(const std::string& name, const std::string& ending);

}  // namespace tarn
