#include <gmock/gmock.h>

#include <algorithm>
#include <cerrno>

#include "media/MoviePieces.h"
#include "media/mount/MountedCard.h"
#include "media/mount/SampleBytes.h"
#include "recorder/RecorderRig.h"
#include "support/IoFaults.h"
#include "support/Shell.h"

namespace tarn_test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

// A picture of the rig with the parameter sets of a real one.
Bytes moviePicture(uint32_t number, size_t size = 600) {
  Bytes bytes;
  if (isKey(number)) bytes = pictureAt(0, true).annexB;
  const Bytes rest = pictureBytes(number, size);
  bytes.insert(bytes.end(), rest.begin(), rest.end());
  return bytes;
}

// `wide`: with other parameter sets.
bool record(tarn::RecordingSession* session, uint32_t from, uint32_t to, bool wide = false) {
  for (uint32_t i = from; i < to; ++i) {
    Bytes bytes = moviePicture(i);
    if (wide && isKey(i)) bytes[9] = 0x15;
    if (session->writePicture(bytes.data(), bytes.size(), pictureTime(i), 0, isKey(i)) != 0)
      return false;
  }
  return true;
}

std::vector<std::string> namesOf(tarn::MountedCard* card, uint64_t folder) {
  std::shared_ptr<const tarn::MountTree> tree;
  const tarn::MountFolder* found = nullptr;
  std::vector<std::string> names;
  EXPECT_EQ(card->list(folder, &tree, &found), 0) << card->error();
  if (found == nullptr) return names;
  for (const tarn::MountName& name : found->names) names.push_back(name.name);
  return names;
}

// "2023-11-15/ch0/00-13-20.mp4"
tarn::MountAttributes look(tarn::MountedCard* card, const std::string& path) {
  tarn::MountAttributes found;
  found.number = tarn::MountedCard::kRoot;
  for (size_t at = 0; at < path.size();) {
    const size_t slash = std::min(path.find('/', at), path.size());
    const uint64_t folder = found.number;
    EXPECT_EQ(card->find(folder, path.substr(at, slash - at), &found), 0)
        << path << ": " << card->error();
    at = slash + 1;
  }
  return found;
}

Bytes contents(tarn::MountedCard* card, const tarn::MountAttributes& file, size_t piece) {
  Bytes bytes;
  Bytes read(piece);
  EXPECT_EQ(card->open(file.number), 0) << card->error();
  for (size_t done = 1; done > 0;) {
    if (card->read(file.number, bytes.size(), piece, read.data(), &done) != 0) done = 0;
    bytes.insert(bytes.end(), read.begin(), read.begin() + static_cast<ptrdiff_t>(done));
  }
  card->close(file.number);
  return bytes;
}

// How often a picture of the test is in it.
size_t picturesIn(const Bytes& movie, uint32_t number) {
  const Bytes picture = pictureBytes(number, 600);
  size_t found = 0;
  for (auto at = movie.begin();
       (at = std::search(at, movie.end(), picture.begin() + 4, picture.end())) != movie.end(); ++at)
    ++found;
  return found;
}

constexpr char kFirst[] = "2023-11-15/ch0/00-13-20.mp4";

TEST(MountedCard, ShowsDaysChannelsAndEventsUnderNamesOfTheirTimes) {
  RecorderRig rig;
  tarn::RecordingSession session;
  ASSERT_TRUE(openSession(session));
  ASSERT_TRUE(record(&session, 0, 50));
  const uint32_t event = session.beginEvent(7, pictureTime(49), 1);
  ASSERT_TRUE(record(&session, 50, 75));
  session.endEvent(event, pictureTime(74));
  ASSERT_EQ(session.close(), 0);
  tarn::MountedCard card(std::nullopt);
  EXPECT_THAT(namesOf(&card, tarn::MountedCard::kRoot), ElementsAre("2023-11-15"));
  EXPECT_THAT(namesOf(&card, look(&card, "2023-11-15").number), ElementsAre("ch0", "events"));
  EXPECT_THAT(namesOf(&card, look(&card, "2023-11-15/ch0").number), ElementsAre("00-13-20.mp4"));
  EXPECT_THAT(namesOf(&card, look(&card, "2023-11-15/events").number),
              ElementsAre("00-13-21-ch0-trigger7.mp4"));
  // Pictures 24 to 74, from the key picture at 0.
  const auto file = look(&card, "2023-11-15/events/00-13-21-ch0-trigger7.mp4");
  const Bytes movie = contents(&card, file, 1000);
  EXPECT_EQ(movie.size(), file.size);
  EXPECT_EQ(picturesIn(movie, 74), 1u);
  tarn::MountedCard other(5);
  EXPECT_THAT(namesOf(&other, tarn::MountedCard::kRoot), IsEmpty());
  tarn::MountAttributes none;
  EXPECT_EQ(card.find(tarn::MountedCard::kRoot, "2023-11-16", &none), ENOENT);
  EXPECT_EQ(card.find(file.number, "x", &none), ENOTDIR);
}

TEST(MountedCard, AMovieHasItsSizeBeforeItIsReadAndTheSameBytesWhereverReadingBegins) {
  RecorderRig rig;
  tarn::RecordingSession session;
  ASSERT_TRUE(openSession(session));
  ASSERT_TRUE(record(&session, 0, 60));
  ASSERT_EQ(session.close(), 0);
  tarn::MountedCard card(std::nullopt);
  const tarn::MountAttributes file = look(&card, kFirst);
  EXPECT_FALSE(file.folder);
  const Bytes movie = contents(&card, file, 100000);
  ASSERT_EQ(movie.size(), file.size);
  EXPECT_EQ(contents(&card, file, 777), movie);
  tarn::MountedCard again(std::nullopt);
  EXPECT_EQ(contents(&again, look(&again, kFirst), 4096), movie);
  for (uint32_t i = 0; i < 60; ++i) {
    EXPECT_EQ(picturesIn(movie, i), 1u) << i;
  }
  ASSERT_EQ(card.open(file.number), 0);
  Bytes piece(500);
  size_t done = 0;
  for (uint64_t at = 7; at < movie.size(); at += 4801) {
    ASSERT_EQ(card.read(file.number, at, piece.size(), piece.data(), &done), 0);
    const size_t end = std::min<size_t>(movie.size(), at + piece.size());
    ASSERT_EQ(done, end - at);
    piece.resize(done);
    EXPECT_EQ(piece, Bytes(movie.begin() + static_cast<ptrdiff_t>(at),
                           movie.begin() + static_cast<ptrdiff_t>(end)));
    piece.resize(500);
  }
  card.close(file.number);
}

// What follows `name` in a movie's head, the box's own header left out.
size_t behind(const Bytes& movie, const std::string& name) {
  const auto at = std::search(movie.begin(), movie.end(), name.begin(), name.end());
  EXPECT_NE(at, movie.end()) << name;
  return static_cast<size_t>(at - movie.begin()) + name.size();
}
uint32_t numberAt(const Bytes& movie, size_t at) {
  uint32_t number = 0;
  for (size_t i = 0; i < 4; ++i) number = number << 8 | movie.at(at + i);
  return number;
}

TEST(MountedCard, AMovieSaysOfEachPictureHowItIsDecodedWhereThatChangesWithin) {
  RecorderRig rig;
  tarn::RecordingSession session;
  ASSERT_TRUE(openSession(session));
  ASSERT_TRUE(record(&session, 0, 50));
  ASSERT_TRUE(record(&session, 50, 100, true));
  ASSERT_TRUE(record(&session, 100, 120));
  ASSERT_EQ(session.close(), 0);
  ASSERT_EQ(allStreams().size(), 1u);
  tarn::MountedCard card(std::nullopt);
  const tarn::MountAttributes file = look(&card, kFirst);
  const Bytes movie = contents(&card, file, 100000);
  ASSERT_EQ(movie.size(), file.size);
  EXPECT_EQ(contents(&card, file, 777), movie);
  for (uint32_t i = 0; i < 120; ++i) EXPECT_EQ(picturesIn(movie, i), 1u) << i;

  const size_t descriptions = behind(movie, "stsd");
  ASSERT_EQ(numberAt(movie, descriptions + 4), 2u);
  const size_t second = descriptions + 8 + numberAt(movie, descriptions + 8);
  EXPECT_EQ(std::string(movie.begin() + static_cast<ptrdiff_t>(second) + 4,
                        movie.begin() + static_cast<ptrdiff_t>(second) + 8),
            "avc1");
  // Runs of places: the first of them, pictures in each, which description.
  const size_t runs = behind(movie, "stsc");
  std::vector<uint32_t> pictures, which;
  for (uint32_t i = 0; i < numberAt(movie, runs + 4); ++i) {
    EXPECT_EQ(numberAt(movie, runs + 8 + i * 12), i + 1);
    pictures.push_back(numberAt(movie, runs + 12 + i * 12));
    which.push_back(numberAt(movie, runs + 16 + i * 12));
  }
  EXPECT_THAT(pictures, ElementsAre(50, 50, 20));
  EXPECT_THAT(which, ElementsAre(1, 2, 1)) << "one that comes again is described once";
  // Each place begins with a picture.
  const size_t places = behind(movie, "stco");
  ASSERT_EQ(numberAt(movie, places + 4), 3u);
  for (uint32_t i = 0; i < 3; ++i) {
    const uint32_t at = numberAt(movie, places + 8 + i * 4);
    EXPECT_EQ(movie.at(at + 4) & 0x1F, 7) << "its parameter sets come first";
  }
}

bool isAsBefore(tarn::MountedCard* card, uint64_t number) {
  bool same = false;
  EXPECT_EQ(card->open(number, &same), 0) << card->error();
  card->close(number);
  return same;
}

// All but the first, which are more movies than are kept in memory.
void openOthers(tarn::MountedCard* card) {
  const std::vector<DB_STREAM> rows = allStreams();
  for (size_t i = 1; i < rows.size(); ++i)
    isAsBefore(card, tarn::MountId{tarn::MountId::Kind::kRecording, rows[i].streamID, 0}.number());
}

TEST(MountedCard, SaysWhetherWhatWasReadBeforeIsStillGood) {
  RecorderRig rig;
  tarn::RecordingSession session;
  ASSERT_TRUE(openSession(session));
  ASSERT_TRUE(record(&session, 0, 60));
  ASSERT_EQ(session.flush(), 0);
  tarn::MountedCard growing(std::nullopt);
  const uint64_t grows = look(&growing, "2023-11-15/ch0/00-13-20.recording.mp4").number;
  EXPECT_FALSE(isAsBefore(&growing, grows));
  EXPECT_FALSE(isAsBefore(&growing, grows)) << "it grows";
  ASSERT_EQ(session.close(), 0);
  for (uint32_t i = 0; i < 6; ++i) {
    ASSERT_TRUE(openSession(session));
    ASSERT_TRUE(record(&session, 100 + i * 75, 150 + i * 75));
    ASSERT_EQ(session.close(), 0);
  }
  tarn::MountedCard card(std::nullopt);
  const uint64_t file = look(&card, kFirst).number;
  EXPECT_FALSE(isAsBefore(&card, file)) << "nothing was read before";
  EXPECT_TRUE(isAsBefore(&card, file));
  openOthers(&card);
  EXPECT_TRUE(isAsBefore(&card, file));
  // An entry that was good is not any more: without its picture the movie is another one.
  const DB_STREAM row = allStreams().front();
  const uint64_t entry = rig.card.chunkStart(tarn::kFilePicture, static_cast<int>(row.chunkID)) +
                         row.chunkOffset + 32 * 40;
  const ShellResult damage =
      shell("printf xxxx | dd of=/dev/sdblk0p1 bs=1 conv=notrunc status=none seek=" +
            std::to_string(entry + 12));
  ASSERT_EQ(damage.exitCode, 0) << damage.output;
  openOthers(&card);
  EXPECT_FALSE(isAsBefore(&card, file));
  EXPECT_TRUE(isAsBefore(&card, file));
}

// The ring overwrites its place while it is open.
TEST(MountedCard, NeverGivesAnotherRecordingsBytes) {
  RecorderRig rig({64 * kKiB, 16 * kKiB, 3, 64 * kKiB});
  tarn::RecordingSession session;
  ASSERT_TRUE(openSession(session));
  ASSERT_TRUE(record(&session, 0, 200));
  tarn::MountedCard card(std::nullopt);
  const tarn::MountAttributes file = look(&card, kFirst);
  const Bytes movie = contents(&card, file, 65536);
  ASSERT_EQ(card.open(file.number), 0);
  const uint32_t key = allStreams().front().streamID;
  int gone = 0;
  for (uint32_t from = 200; from < 700; from += 20) {
    ASSERT_TRUE(record(&session, from, from + 20));
    for (uint64_t at = 20000; at < movie.size(); at += 3000) {
      Bytes piece(800);
      size_t done = 0;
      const int error = card.read(file.number, at, piece.size(), piece.data(), &done);
      gone += error == ESTALE ? 1 : 0;
      if (error != 0) continue;
      piece.resize(done);
      EXPECT_EQ(piece, Bytes(movie.begin() + static_cast<ptrdiff_t>(at),
                             movie.begin() + static_cast<ptrdiff_t>(at + done)));
    }
  }
  ASSERT_NE(allStreams().front().streamID, key) << "the ring has not come round";
  EXPECT_GT(gone, 0);
  tarn::MountAttributes none;
  EXPECT_EQ(card.attributes(file.number, &none), 0) << "of an open file";
  card.close(file.number);
  EXPECT_EQ(card.attributes(file.number, &none), ESTALE);
  EXPECT_EQ(card.open(file.number), ESTALE);
}

TEST(MountedCard, WhatTheCardRefusesIsAnErrorAndComesAtTheNextTry) {
  RecorderRig rig;
  tarn::RecordingSession session;
  ASSERT_TRUE(openSession(session));
  ASSERT_TRUE(record(&session, 0, 60));
  ASSERT_EQ(session.close(), 0);
  const DB_STREAM row = allStreams().front();
  tarn::RecordingReader reader;
  tarn::PictureEntry entry;
  ASSERT_EQ(reader.open(row), 0);
  ASSERT_TRUE(reader.picture(40, &entry));
  tarn::MountedCard whole(std::nullopt);
  const Bytes movie = contents(&whole, look(&whole, kFirst), 65536);

  tarn::MountedCard card(std::nullopt);
  const tarn::MountAttributes file = look(&card, kFirst);
  {
    IoFaults faults(kCardPath);
    const uint64_t data =
        rig.card.chunkStart(tarn::kFileStream, static_cast<int>(row.chunkID)) + entry.dataOffset;
    for (const Call call : {Call::Read, Call::Pread}) faults.failAt(call, data, 512, EIO);
    Bytes all(movie.size());
    size_t done = 0;
    ASSERT_EQ(card.open(file.number), 0) << card.error();
    EXPECT_EQ(card.read(file.number, 0, all.size(), all.data(), &done), EIO);
    EXPECT_EQ(card.error(), "recording 1 is not delivered by the card now");
    card.close(file.number);
  }
  EXPECT_EQ(contents(&card, file, 65536), movie);
  // An entry: nobody knows what the movie holds.
  tarn::MountedCard another(std::nullopt);
  IoFaults faults(kCardPath);
  const uint64_t entries =
      rig.card.chunkStart(tarn::kFilePicture, static_cast<int>(row.chunkID)) + row.chunkOffset;
  for (const Call call : {Call::Read, Call::Pread}) faults.failAt(call, entries + 1024, 512, EIO);
  EXPECT_EQ(another.open(look(&another, kFirst).number), EIO);
}

TEST(MountedCard, ARecordingThatRunsShowsWhatWasSafeWhenItWasLookedUp) {
  RecorderRig rig;
  tarn::RecordingSession session;
  ASSERT_TRUE(openSession(session));
  ASSERT_TRUE(record(&session, 0, 40));
  ASSERT_EQ(session.flush(), 0);
  tarn::MountedCard card(std::nullopt);
  const std::string path = "2023-11-15/ch0/00-13-20.recording.mp4";
  const tarn::MountAttributes before = look(&card, path);
  ASSERT_EQ(card.open(before.number), 0) << card.error();
  ASSERT_TRUE(record(&session, 40, 80));
  ASSERT_EQ(session.flush(), 0);
  tarn::MountAttributes now;
  ASSERT_EQ(card.attributes(before.number, &now), 0);
  EXPECT_EQ(now.size, before.size) << "it is open";
  EXPECT_EQ(contents(&card, before, 5000).size(), before.size);
  card.close(before.number);
  const tarn::MountAttributes after = look(&card, path);
  EXPECT_GT(after.size, before.size);
  const Bytes movie = contents(&card, after, 5000);
  EXPECT_EQ(movie.size(), after.size);
  EXPECT_EQ(picturesIn(movie, 79), 1u);
  ASSERT_EQ(session.close(), 0);
  tarn::MountedCard later(std::nullopt);
  EXPECT_THAT(namesOf(&later, look(&later, "2023-11-15/ch0").number), ElementsAre("00-13-20.mp4"));
}

TEST(SampleBytes, HaveTheirSizeWhateverTheStartCodesWere) {
  std::vector<uint8_t> sample;
  const std::vector<uint8_t> three = {0, 0, 1, 0x65, 7, 8, 0, 0, 1, 0x41, 9};
  ASSERT_TRUE(tarn::makeSample(three, 20, &sample));
  EXPECT_THAT(sample, ElementsAre(0, 0, 0, 3, 0x65, 7, 8, 0, 0, 0, 2, 0x41, 9,  //
                                  0, 0, 0, 3, 0x0C, 0xFF, 0x80));
  EXPECT_TRUE(tarn::makeSample(three, 13, &sample)) << "nothing is left";
  EXPECT_FALSE(tarn::makeSample(three, 12, &sample));
  EXPECT_FALSE(tarn::makeSample(three, 18, &sample)) << "no unit is that short";
  EXPECT_TRUE(tarn::makeSample({0, 0, 0, 1, 0x65, 1, 0, 0, 0}, 12, &sample));
  EXPECT_THAT(sample, ElementsAre(0, 0, 0, 2, 0x65, 1, 0, 0, 0, 2, 0x0C, 0x80));
}

}  // namespace
}  // namespace tarn_test
