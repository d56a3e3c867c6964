#include "media/serve/ZipStream.h"

#include <archive.h>
#include <archive_entry.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

namespace tarn {
namespace {

constexpr ssize_t kEnd = -1;
constexpr ssize_t kBrokenOff = -2;
constexpr size_t kBlock = size_t{64} * 1024;
constexpr mode_t kPlainFile = 0644;

bool good(int answer) { return answer == ARCHIVE_OK; }

}  // namespace

void ZipStream::Freed::operator()(archive* one) const { archive_write_free(one); }
void ZipStream::Freed::operator()(archive_entry* one) const { archive_entry_free(one); }

ZipStream::ZipStream(std::vector<File> files, std::shared_ptr<void> kept)
    : files_(std::move(files)),
      kept_(std::move(kept)),
      zip_(archive_write_new()),
      entry_(archive_entry_new()),
      block_(kBlock) {
  // What was coded as video gets no shorter, and without blocks of the library's own nothing is
  // held back.
  failed_ = zip_ == nullptr || entry_ == nullptr ||
            !good(archive_write_set_format_zip(zip_.get())) ||
            !good(archive_write_zip_set_compression_store(zip_.get())) ||
            !good(archive_write_set_bytes_per_block(zip_.get(), 0)) ||
            !good(archive_write_open(zip_.get(), this, nullptr, &ZipStream::take, nullptr));
}

// Who leaves early lets the library make its end, for nobody: giving it up in the middle is what it
// has no way for that would free all that it has.
ZipStream::~ZipStream() {
  isLeft_ = true;
  zip_.reset();
}

ssize_t ZipStream::take(archive* /*zip*/, void* self, const void* data, size_t size) {
  auto* stream = static_cast<ZipStream*>(self);
  if (!stream->isLeft_) stream->made_.append(static_cast<const char*>(data), size);
  return static_cast<ssize_t>(size);
}

bool ZipStream::beginFile() {
  const File& one = files_[next_];
  file_.reset(open(one.path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
  if (!file_.valid()) return false;
  left_ = one.size;
  archive_entry_clear(entry_.get());
  archive_entry_set_pathname(entry_.get(), one.name.c_str());
  archive_entry_set_filetype(entry_.get(), AE_IFREG);
  archive_entry_set_perm(entry_.get(), kPlainFile);
  archive_entry_set_size(entry_.get(), static_cast<la_int64_t>(one.size));
  archive_entry_set_mtime(entry_.get(), static_cast<time_t>(one.time), 0);
  return good(archive_write_header(zip_.get(), entry_.get()));
}

bool ZipStream::packBlock() {
  const auto most = static_cast<size_t>(std::min<uint64_t>(kBlock, left_));
  ssize_t got = -1;
  do {
    got = ::read(file_.get(), block_.data(), most);
  } while (got < 0 && errno == EINTR);
  if (got <= 0) return false;
  left_ -= static_cast<uint64_t>(got);
  return archive_write_data(zip_.get(), block_.data(), static_cast<size_t>(got)) == got;
}

// A step on: a file begun, a block of it, or the end.
bool ZipStream::makeMore() {
  if (next_ == files_.size()) {
    ended_ = true;
    return good(archive_write_close(zip_.get()));
  }
  if (!file_.valid()) return beginFile();
  if (left_ > 0) return packBlock();
  file_.reset();
  ++next_;
  return good(archive_write_finish_entry(zip_.get()));
}

ssize_t ZipStream::read(char* out, size_t room) {
  if (sent_ == made_.size()) {
    made_.clear();
    sent_ = 0;
    while (made_.empty() && !ended_ && !failed_) failed_ = !makeMore();
    if (failed_) return kBrokenOff;
    if (made_.empty()) return kEnd;
  }
  const size_t size = std::min(room, made_.size() - sent_);
  memcpy(out, made_.data() + sent_, size);
  sent_ += size;
  return static_cast<ssize_t>(size);
}

int64_t ZipStream::lengthOf(const std::vector<File>& files,
                            const std::function<bool()>& stopAsked) {
  ZipStream zip(files, nullptr);
  std::vector<char> block(kBlock);
  int64_t length = 0;
  ssize_t got = 0;
  while ((got = zip.read(block.data(), block.size())) > 0) {
    if (stopAsked()) return -1;
    length += got;
  }
  return got == kEnd ? length : -1;
}

}  // namespace tarn
