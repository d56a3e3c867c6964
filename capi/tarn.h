/*
 * Cards of the recorder for programs in C, and for any language that can call C: what is recorded
 * on a card, each picture and frame of sound with its time, exports, and proofs of sealed files.
 *
 * Reads only. A card that is opened by its path stays byte for byte as it is, whatever it takes to
 * read it: what a start of the recorder would mend is mended in memory and dropped. All of that is
 * done by a process of the tool `tarn`, started for each card that is open; so a card that was made
 * to do harm meets that process and not the caller's. The tool of the same version must be
 * installed beside this library, with what its private views need (bubblewrap and FUSE).
 *
 * Errors: a function that fails returns NULL or -1, and tarn_error() has the reason. Nothing here
 * ends the program or raises a signal. NULL in place of an object is an error like any other; in
 * place of one to free or close it does nothing.
 *
 * Threads: any function in any thread. Calls about one card wait for each other; a reader and a
 * list are used by one thread at a time. Behind fork() the child may only use what it opens itself.
 *
 * Times are microseconds since 1970-01-01 00:00 UTC, without leap seconds. Texts are UTF-8 as far
 * as the card's are. Structs belong to the library, unless it says otherwise, and may become longer
 * at their ends; numbers of the enumerations may be more.
 */
#ifndef TARN_H
#define TARN_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define TARN_C_API __attribute__((visibility("default")))

/* In place of a time: none, not known, no limit. */
#define TARN_NO_TIME INT64_MIN
/* In place of an offset from UTC: not known. */
#define TARN_NO_ZONE INT32_MIN
/* In place of a channel: any, or not known. */
#define TARN_NO_CHANNEL (-1)

typedef struct tarn_card tarn_card;             /* an open card */
typedef struct tarn_recordings tarn_recordings; /* a list */
typedef struct tarn_events tarn_events;         /* a list */
typedef struct tarn_reader tarn_reader;         /* a recording that is being read */
typedef struct tarn_exported tarn_exported;     /* what became of an export */
typedef struct tarn_proof tarn_proof;           /* what a sealed file proves */

/* Why the last function that failed in this thread did: never NULL, "" before the first failure.
 * Good until the next call in this thread. */
TARN_C_API const char* tarn_error(void);
/* Version of this library, "MAJOR.MINOR.PATCH". */
TARN_C_API const char* tarn_interface_version(void);

/* ---- Cards ---- */

/* Opens a card: a block device, an image, a device or image with an MBR or GPT around the card, an
 * Expert Witness image (.E01), or a folder with the files of a card. `partition` chooses one of a
 * whole device, 0: the one that holds a card. Takes as long as the recorder's start on that card
 * does. NULL on failure, and the text says what was found instead of a card. */
TARN_C_API tarn_card* tarn_open(const char* path, int partition);
/* The card of the recorder that this machine is, while it records: its lists grow, its oldest
 * recordings go. Needs the recorder's database. */
TARN_C_API tarn_card* tarn_open_recorder(void);
/* What is worth knowing about how the card was opened: the partition that was found, files of a
 * folder that are missing, damage that was passed over; a line each, "" for nothing. As long as the
 * card is open. */
TARN_C_API const char* tarn_card_note(tarn_card* card);
/* Ends the process behind it. Its readers are still to be closed, and only fail from now on; lists
 * stay as they are. */
TARN_C_API void tarn_close(tarn_card* card);

/* ---- What is recorded ---- */

enum tarn_kind { TARN_VIDEO = 0, TARN_SOUND = 1 };

enum tarn_state {
  TARN_COMPLETE = 0,    /* it was ended by the recorder */
  TARN_INTERRUPTED = 1, /* power or the card went; what had reached the card is there */
  TARN_RUNNING = 2,     /* it is being recorded */
  TARN_UNREADABLE = 3   /* the card does not give what it begins with, or gives something else */
};

typedef struct tarn_recording {
  uint32_t id; /* its number on the card, never used twice */
  int32_t channel;
  int32_t kind;         /* enum tarn_kind */
  int32_t state;        /* enum tarn_state */
  int64_t start_us;     /* first picture */
  int64_t end_us;       /* last picture; TARN_NO_TIME while it runs */
  int32_t zone_seconds; /* that local time was ahead of UTC there, by its own pictures */
  uint32_t trigger;
  uint32_t pictures; /* 0 of sound, and while it runs */
  uint32_t copy_of;  /* a kept copy of this recording, which is gone; else 0 */
  int32_t kept;      /* 1: its pictures are kept from being overwritten */
  uint64_t bytes;    /* of its pictures or its sound; 0: not known */
  const char* codec; /* "h264", "aac", "alaw", "mulaw", "opus", or "unknown" */
} tarn_recording;

/* Recordings that show anything of a time, in the order of their starts: `from_us` and `to_us` may
 * be TARN_NO_TIME, `channel` TARN_NO_CHANNEL. Each picture is in one of them only. */
TARN_C_API tarn_recordings* tarn_list_recordings(tarn_card* card, int64_t from_us, int64_t to_us,
                                                 int channel);
TARN_C_API size_t tarn_recordings_count(const tarn_recordings* list);
/* As long as the list is there. NULL behind its end. */
TARN_C_API const tarn_recording* tarn_recordings_get(const tarn_recordings* list, size_t index);
TARN_C_API void tarn_recordings_free(tarn_recordings* list);

typedef struct tarn_event {
  uint32_t id;
  uint32_t trigger;     /* the number that the recorder gave */
  uint32_t pre_seconds; /* that it covers in front of its start */
  int32_t zone_seconds; /* by the pictures of its time */
  int64_t start_us;
  int64_t end_us; /* TARN_NO_TIME while it lasts */
  int32_t kept;   /* 1: pictures of its time are kept from being overwritten */
} tarn_event;

/* Events of a time, in the order of their starts. */
TARN_C_API tarn_events* tarn_list_events(tarn_card* card, int64_t from_us, int64_t to_us);
TARN_C_API size_t tarn_events_count(const tarn_events* list);
TARN_C_API const tarn_event* tarn_events_get(const tarn_events* list, size_t index);
TARN_C_API void tarn_events_free(tarn_events* list);

/* ---- Pictures and sound ---- */

enum tarn_sample_flags {
  TARN_KEY = 1,           /* can be decoded without those before it; every frame of sound */
  TARN_DISCONTINUITY = 2, /* something is missing in front of it */
  TARN_DAMAGED = 4,       /* its bytes are not the ones that were recorded */
  TARN_LOST = 8           /* the card does not give it: no bytes, and maybe no time */
};

typedef struct tarn_sound_format {
  const char* codec; /* as in tarn_recording */
  uint32_t channels;
  uint32_t sample_rate;  /* samples a second */
  const uint8_t* config; /* AAC: AudioSpecificConfig; Opus: its identification header */
  size_t config_size;
} tarn_sound_format;

/* A picture as it was recorded, in Annex B of H.264, or a frame of sound. */
typedef struct tarn_sample {
  const uint8_t* data; /* NULL of one that is lost */
  size_t size;
  int64_t time_us; /* when it is to be shown or heard; TARN_NO_TIME where the card does not tell */
  int64_t decode_us; /* when it is to be decoded: pictures come in this order */
  uint32_t
      index; /* of the picture in its recording, from 0; of sound, of the block that it is in */
  uint32_t flags;   /* enum tarn_sample_flags */
  uint32_t samples; /* of sound: how long it is, of each channel; of pictures 0 */
  const tarn_sound_format*
      format; /* of sound: how it is coded, which may change; of pictures NULL */
} tarn_sample;

/* Reads a recording from its first picture on. */
TARN_C_API tarn_reader* tarn_read(tarn_card* card, uint32_t recording);
/* The next one into *sample, good until the next call with this reader: 1; 0 behind the last one,
 * of a recording that runs only for now; -1 on failure. */
TARN_C_API int tarn_reader_next(tarn_reader* reader, const tarn_sample** sample);
/* Goes on with the last key picture at or before a time, the first one without such; of sound with
 * the frame at that time. 0, or -1. */
TARN_C_API int tarn_reader_seek(tarn_reader* reader, int64_t time_us);
TARN_C_API void tarn_reader_close(tarn_reader* reader);

/* ---- Export ---- */

/* What to export: a recording, all of an event, or a period. Made by the caller, by
 * TARN_EXPORT_REQUEST_INIT. */
typedef struct tarn_export_request {
  size_t size;        /* sizeof(tarn_export_request) */
  uint32_t recording; /* 0: none */
  uint32_t event;     /* 0: none */
  int64_t from_us;    /* of a period; TARN_NO_TIME: no such end */
  int64_t to_us;
  int channel;
  int without_sound; /* these three are 0 or 1 */
  int tracks;        /* several channels into one file, a track each */
  int overwrite;     /* replace a file that exists */
  /* Seals the files, as `tarn export --seal` does: a private key (a file without a passphrase, or
   * the pkcs11: address of one in a token, its PIN included), and its certificate. NULL: no seal.
   */
  const char* seal_key;
  const char* certificate;
  const char* operator_name; /* NULL or a text, in the seal for good */
  const char* note;
  /* Called now and then in the caller's thread with pictures and pieces of sound written, unless
   * NULL; another result than 0 stops the export, which fails then. Must not call the library. */
  int (*progress)(void* context, uint64_t written);
  void* context;
} tarn_export_request;

#define TARN_EXPORT_REQUEST_INIT                                                                   \
  {                                                                                                \
    sizeof(tarn_export_request), 0, 0, TARN_NO_TIME, TARN_NO_TIME, TARN_NO_CHANNEL, 0, 0, 0, NULL, \
        NULL, NULL, NULL, NULL, NULL                                                               \
  }

typedef struct tarn_exported_file {
  const char* path;
  int32_t channel;
  const char* error; /* "" or why there is no such file, or nothing of the channel in it */
  uint64_t pictures; /* written */
  uint64_t lost;     /* pictures and blocks of sound that could not be read */
  uint64_t damaged;  /* of those written */
  uint64_t left_out; /* pictures without the key picture that they need */
  uint64_t frames;   /* of sound, written */
  int64_t first_us;  /* TARN_NO_TIME without a picture */
  int64_t last_us;
} tarn_exported_file;

/* Writes to `path`: .mp4, .mov or .h264; of several channels NAME-ch0.mp4 and so on. A file is
 * there only once it is whole. No place below /dev or /proc. 0 when all that is there was written;
 * -1 when something failed or is missing. Unless NULL, *exported gets what became of each file, to
 * be freed in either case, or NULL. */
TARN_C_API int tarn_export(tarn_card* card, const tarn_export_request* request, const char* path,
                           tarn_exported** exported);
TARN_C_API size_t tarn_exported_count(const tarn_exported* exported);
TARN_C_API const tarn_exported_file* tarn_exported_get(const tarn_exported* exported, size_t index);
TARN_C_API void tarn_exported_free(tarn_exported* exported);

/* ---- Sealed files ---- */

/* What a file says and proves. All but `proven`, `sealed`, `error` and `seals` is its own claim. */
typedef struct tarn_proof_facts {
  int32_t proven;       /* 1: every seal holds */
  int32_t sealed;       /* 1: it could be read and has a seal */
  const char* error;    /* "" or why not */
  const char* unit;     /* that exported it */
  const char* exported; /* when, UTC */
  const char* operator_name;
  size_t seals;   /* how many, the one of the export first */
  size_t sources; /* recorded channels in it */
} tarn_proof_facts;

typedef struct tarn_seal {
  int32_t proven;    /* 1: unchanged, and not known to be of nobody who is trusted */
  int32_t unchanged; /* 1: nothing was changed since, but for later seals */
  int32_t
      trusted; /* 1: an authority that was given vouches for it; 0: none does; -1: none was given */
  const char* reason; /* why it is not proven, else "" */
  const char* holder; /* of the certificate, as RFC 2253 has it */
  const char* issuer;
  const char* fingerprint; /* SHA-256 of the certificate, hexadecimal */
  const char* time;        /* by the sealer's clock, "YYYY-MM-DDTHH:MM:SSZ" */
  const char* operator_name;
  const char* note;
} tarn_seal;

typedef struct tarn_source {
  uint32_t track;
  const char* name;
  int64_t start_us; /* what decode time 0 of the track stands for; TARN_NO_TIME without one */
} tarn_source;

/* Reads all of a file and proves its seals, each by the certificate in it; where `authorities` are
 * given, `count` paths of certificates (PEM), one of them must vouch for that. NULL only where
 * nothing can be said; a file that cannot be read or has no seal has a proof that says so. Needs no
 * card. */
TARN_C_API tarn_proof* tarn_verify(const char* path, const char* const* authorities, size_t count);
/* As long as the proof is there, as what the two below return. */
TARN_C_API const tarn_proof_facts* tarn_proof_get(const tarn_proof* proof);
TARN_C_API const tarn_seal* tarn_proof_seal(const tarn_proof* proof, size_t index);
TARN_C_API const tarn_source* tarn_proof_source(const tarn_proof* proof, size_t index);
TARN_C_API void tarn_proof_free(tarn_proof* proof);

#ifdef __cplusplus
}
#endif

#endif
