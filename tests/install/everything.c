/*
 * everything CARD SEALED FOLDER
 * Calls every function of tarn.h, with what it is for and with NULL, and says the first thing that
 * is not as it should be.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "tarn.h"

#define EXPECT(what)                                                                \
  do {                                                                              \
    if (!(what)) {                                                                  \
      fprintf(stderr, "line %d: not so: %s (%s)\n", __LINE__, #what, tarn_error()); \
      exit(1);                                                                      \
    }                                                                               \
  } while (0)

static void nulls_are_errors(void) {
  const tarn_sample* sample = NULL;
  tarn_exported* exported = NULL;
  const char* nothing[] = {NULL};
  tarn_export_request request = TARN_EXPORT_REQUEST_INIT;
  EXPECT(tarn_open(NULL, 0) == NULL && strstr(tarn_error(), "NULL") != NULL);
  EXPECT(tarn_open("", 0) == NULL && tarn_open("card", -1) == NULL);
  EXPECT(strcmp(tarn_card_note(NULL), "") == 0);
  EXPECT(tarn_list_recordings(NULL, TARN_NO_TIME, TARN_NO_TIME, TARN_NO_CHANNEL) == NULL);
  EXPECT(tarn_list_events(NULL, TARN_NO_TIME, TARN_NO_TIME) == NULL);
  EXPECT(tarn_recordings_count(NULL) == 0 && tarn_recordings_get(NULL, 0) == NULL);
  EXPECT(tarn_events_count(NULL) == 0 && tarn_events_get(NULL, 0) == NULL);
  EXPECT(tarn_read(NULL, 1) == NULL);
  EXPECT(tarn_reader_next(NULL, &sample) == -1 && tarn_reader_seek(NULL, 0) == -1);
  EXPECT(tarn_export(NULL, &request, "out.mp4", &exported) == -1 && exported == NULL);
  EXPECT(tarn_exported_count(NULL) == 0 && tarn_exported_get(NULL, 0) == NULL);
  EXPECT(tarn_verify(NULL, NULL, 0) == NULL && tarn_verify("file", NULL, 1) == NULL);
  EXPECT(tarn_verify("file", nothing, 1) == NULL);
  EXPECT(tarn_proof_get(NULL) == NULL && tarn_proof_seal(NULL, 0) == NULL);
  EXPECT(tarn_proof_source(NULL, 0) == NULL);
  tarn_close(NULL);
  tarn_recordings_free(NULL);
  tarn_events_free(NULL);
  tarn_reader_close(NULL);
  tarn_exported_free(NULL);
  tarn_proof_free(NULL);
}

/* That was in force here at a moment. */
static int32_t zone_here(int64_t time_us) {
  const time_t seconds = (time_t)(time_us / 1000000);
  char text[8] = "";
  strftime(text, sizeof text, "%z", localtime(&seconds));
  const int number = atoi(text);
  return (number / 100 * 60 + number % 100) * 60;
}

static uint32_t lists(tarn_card* card) {
  tarn_recordings* list = tarn_list_recordings(card, TARN_NO_TIME, TARN_NO_TIME, 2);
  EXPECT(list != NULL && tarn_recordings_count(list) == 1);
  const tarn_recording* one = tarn_recordings_get(list, 0);
  EXPECT(one->channel == 2 && one->kind == TARN_VIDEO && one->state == TARN_COMPLETE);
  EXPECT(one->pictures == 50 && one->bytes > 1000 && strcmp(one->codec, "h264") == 0);
  EXPECT(one->end_us - one->start_us == 1960000 && one->zone_seconds == zone_here(one->start_us));
  EXPECT(one->kept == 0 && one->copy_of == 0);
  EXPECT(tarn_recordings_get(list, 1) == NULL);
  const uint32_t id = one->id;
  tarn_recordings_free(list);
  tarn_events* events = tarn_list_events(card, TARN_NO_TIME, TARN_NO_TIME);
  EXPECT(events != NULL && tarn_events_count(events) == 1 && tarn_events_get(events, 1) == NULL);
  EXPECT(tarn_events_get(events, 0)->trigger == 7);
  tarn_events_free(events);
  return id;
}

static void pictures(tarn_card* card, uint32_t id) {
  static const uint8_t start[] = {0, 0, 0, 1};
  const tarn_sample* one = NULL;
  size_t count = 0;
  tarn_reader* reader = tarn_read(card, id);
  EXPECT(reader != NULL && tarn_read(card, 99) == NULL && strstr(tarn_error(), "99") != NULL);
  EXPECT(tarn_reader_next(reader, NULL) == -1);
  while (tarn_reader_next(reader, &one) == 1) {
    EXPECT(one->index == count && one->format == NULL && one->samples == 0);
    EXPECT(one->size > sizeof start && memcmp(one->data, start, sizeof start) == 0);
    EXPECT(((one->flags & TARN_KEY) != 0) == (count % 25 == 0));
    EXPECT((one->flags & (TARN_DAMAGED | TARN_LOST)) == 0 && one->decode_us <= one->time_us);
    ++count;
  }
  EXPECT(count == 50 && one == NULL && tarn_reader_next(reader, &one) == 0);
  EXPECT(tarn_reader_seek(reader, TARN_NO_TIME) == 0 && tarn_reader_next(reader, &one) == 1);
  EXPECT(one->index == 0);
  EXPECT(tarn_reader_seek(reader, one->time_us + 1500000) == 0);
  EXPECT(tarn_reader_next(reader, &one) == 1 && one->index == 25);
  tarn_reader_close(reader);
}

static int enough(void* context, uint64_t written) {
  EXPECT(written <= 50);
  ++*(int*)context;
  return 1;
}

static void exports(tarn_card* card, uint32_t id, const char* folder) {
  char path[1000];
  int asked = 0;
  tarn_exported* exported = NULL;
  tarn_export_request request = TARN_EXPORT_REQUEST_INIT;
  snprintf(path, sizeof path, "%s/out.mp4", folder);
  EXPECT(tarn_export(card, NULL, path, NULL) == -1 &&
         tarn_export(card, &request, NULL, NULL) == -1);
  request.recording = id;
  EXPECT(tarn_export(card, &request, path, &exported) == 0 && tarn_exported_count(exported) == 1);
  const tarn_exported_file* file = tarn_exported_get(exported, 0);
  EXPECT(strcmp(file->path, path) == 0 && file->pictures == 50 && file->channel == 2);
  EXPECT(strcmp(file->error, "") == 0 && file->lost == 0 && file->damaged == 0);
  EXPECT(file->last_us - file->first_us == 1960000 && tarn_exported_get(exported, 1) == NULL);
  tarn_exported_free(exported);
  EXPECT(tarn_export(card, &request, path, NULL) == -1); /* it is there */
  request.overwrite = 1;
  request.progress = enough;
  request.context = &asked;
  EXPECT(tarn_export(card, &request, path, NULL) == -1 && asked >= 1);
  /* A program of before the fields of the seal and the progress. */
  request.size = offsetof(tarn_export_request, seal_key);
  EXPECT(tarn_export(card, &request, path, NULL) == 0);
}

static void proofs(const char* sealed, const char* plain) {
  const char* authorities[] = {"/dev/null"};
  tarn_proof* proof = tarn_verify(sealed, NULL, 0);
  EXPECT(proof != NULL && tarn_proof_get(proof)->proven == 1 && tarn_proof_get(proof)->seals == 1);
  const tarn_seal* seal = tarn_proof_seal(proof, 0);
  EXPECT(seal->unchanged == 1 && seal->trusted == -1 && strcmp(seal->operator_name, "Ann") == 0);
  EXPECT(strlen(seal->fingerprint) == 64 && tarn_proof_seal(proof, 1) == NULL);
  EXPECT(tarn_proof_source(proof, 0)->start_us > 0 && tarn_proof_source(proof, 1) == NULL);
  tarn_proof_free(proof);
  proof = tarn_verify(plain, NULL, 0);
  EXPECT(proof != NULL && tarn_proof_get(proof)->proven == 0 && tarn_proof_get(proof)->sealed == 0);
  EXPECT(strcmp(tarn_proof_get(proof)->error, "") != 0);
  tarn_proof_free(proof);
  EXPECT(tarn_verify(sealed, authorities, 1) == NULL && strstr(tarn_error(), "/dev/null") != NULL);
}

int main(int count, char** words) {
  char note[200];
  if (count != 4) return 2;
  EXPECT(strcmp(tarn_error(), "") == 0 && strcmp(tarn_interface_version(), "1.0.0") == 0);
  nulls_are_errors();
  EXPECT(tarn_open("/nowhere", 0) == NULL && strstr(tarn_error(), "/nowhere") != NULL);
  EXPECT(tarn_open_recorder() == NULL && strcmp(tarn_error(), "") != 0);
  tarn_card* card = tarn_open(words[1], 0);
  EXPECT(card != NULL);
  snprintf(note, sizeof note, "%s", tarn_card_note(card));
  EXPECT(strcmp(note, "") == 0);
  const uint32_t id = lists(card);
  pictures(card, id);
  exports(card, id, words[3]);
  tarn_reader* reader = tarn_read(card, id);
  EXPECT(reader != NULL);
  tarn_close(card);
  const tarn_sample* sample = NULL;
  EXPECT(tarn_reader_next(reader, &sample) == -1 && strstr(tarn_error(), "closed") != NULL);
  tarn_reader_close(reader);
  char plain[1000];
  snprintf(plain, sizeof plain, "%s/out.mp4", words[3]);
  proofs(words[2], plain);
  puts("every function does what tarn.h says");
  return 0;
}
