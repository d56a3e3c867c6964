#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "base/Export.h"
#include "recorder/card/PictureTime.h"
#include "recorder/session/RecordingError.h"
#include "recorder/session/RecordingStatistics.h"

namespace tarn {

// What a session records and how.
struct RecordingOptions {
  // 0 to 127 but for 126, which holds kept events; chunks belong to one channel, and a channel has
  // one session.
  int8_t channel = 0;
  int8_t recType = 0;
  uint16_t inTrg = 0;     // trigger number of the rows
  uint16_t frameSet = 0;  // stored unchanged; bit 7 (audio) must be clear
  uint32_t bitrate = 0;   // bits per second, 0 when not known; stored, and first guess of the room
  uint32_t segmentSeconds = 60;     // a new row at the first key picture after this; 0: no limit
  uint32_t flushIntervalMs = 1000;  // picture time that a power loss can take at most
};

// Records one channel onto the card: finds room, writes pictures, headers and entries, keeps the
// STREAM and EVENT rows, and lets the oldest recordings go when the card is full.
//
// A picture is safe once its entry is on the card: at most flushIntervalMs of picture time behind
// writePicture(), at a change of row, and at close(). Used by one thread at a time. Sessions of
// several channels may run in threads of one process: the journal of the database has one writing
// process, and only one process of the machine has sessions at a time. The program calls
// CDbLog::finish() when its last session is closed. Nothing throws.
class TARN_API RecordingSession {
 public:
  RecordingSession();
  ~RecordingSession();  // close()
  RecordingSession(const RecordingSession&) = delete;
  RecordingSession& operator=(const RecordingSession&) = delete;

  // Connects to server and database. Refused while another process of the machine records or
  // inserts rows. Rows of this channel that a killed process left open are closed at what their
  // entries confirm. 0, or -1 with error() set. Refused while /tmp/sd_err_mem_write exists: the
  // card failed before, and a second failure could not be told from the first.
  int open(const RecordingOptions& options);

  // One picture (access unit) in decode order; it gets our time stamp unit. `decodeOffsetUs` is
  // decode time minus presentation time. Pictures before the first key picture are dropped
  // (result 0). A picture whose decode time lies more than a second before or 8 seconds behind that
  // of the one before it begins a new row, marked as a discontinuity: the repair after a power loss
  // takes a gap of 10 seconds for the end. 0, or -1 once the session has failed.
  int writePicture(const void* annexB, size_t size, PictureTime presentation,
                   int32_t decodeOffsetUs, bool key);
  // The next picture follows a gap: it begins a row, which is marked as a discontinuity, with the
  // next key picture.
  void markDiscontinuity();
  // Writes out what is collected; all pictures so far are safe after it. 0 or -1.
  int flush();
  // The flush interval by the clock on the wall instead of by the pictures' times: makes safe what
  // was written longer than flushIntervalMs ago. writePicture() sees to it as long as pictures
  // come; whoever waits for one calls this several times an interval, so that an encoder that
  // stalls leaves nothing unsafe. Costs nothing while there is nothing to do. 0 or -1.
  int tick();
  // The clock that the times of the pictures come from was set by `deltaUs`: the running row ends
  // with what it has, safe, and the next picture, of which kind ever, begins a new one that is
  // marked as a discontinuity. Events that run are the old clock's: close() ends them with its last
  // picture. 0 or -1.
  int clockStepped(int64_t deltaUs);
  // The same of a clock that was not known until now, as that of a recorder without a battery that
  // has got the time: what this start has recorded by it since it was set last is re-dated, by
  // whole seconds, together with the events, and events that run go on. Rows alone change; the
  // pictures' own records and stamps stay as they are. A power loss in the middle is made good by
  // the next start. 0 or -1.
  int clockBecameKnown(int64_t deltaUs);

  // Inserts an EVENT row that is open (endDate 0) and returns its key; 0 with error() set when the
  // database or the card's journal did not take it.
  uint32_t beginEvent(uint16_t trigger, PictureTime time, uint16_t preSec);
  // Ends the event: 0, also when it was given up meanwhile with the recordings that it covered. -1
  // when it is none of this session's running ones, or with error() set.
  int endEvent(uint32_t eventID, PictureTime time);
  // What the event shows, of all channels, is not to be overwritten: the EventKeeper of this
  // process copies it in the background once it is over. Does not wait. 0, or -1 when there is no
  // keeper.
  int keepEvent(uint32_t eventID);

  // Ends running events at the last picture (where the clock was set since an event began: at the
  // last one before that), closes the row and saves. After a failure it keeps listed what is
  // confirmed. 0, or -1 when the session has failed.
  int close();

  bool isOpen() const;
  // Key of the row being written; 0 when there is none.
  uint32_t streamID() const;
  // First error, with a sentence for a person. Kept until the next open().
  RecordingError error() const;
  const char* errorText() const;
  RecordingStatistics statistics() const;

 private:
  friend class SoundSession;  // whose blocks take the place of pictures
  class Impl;
  int openSound(const RecordingOptions& options);  // frameSet has bit 7
  int writeBlock(const void* block, size_t size, PictureTime start);
  int openAs(const RecordingOptions& options, bool sound);
  template <typename Result, typename Work>
  Result guarded(const char* name, Result failed, Work work) noexcept;

  std::unique_ptr<Impl> impl_;
  bool noMemory_ = false;
};

}  // namespace tarn
