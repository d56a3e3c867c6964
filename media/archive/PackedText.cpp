#include "media/archive/PackedText.h"

#include <zstd.h>

#include <memory>

namespace tarn {
namespace {

// Higher ones take memory that a recorder does not have, for little.
constexpr int kLevel = 9;
// A day of 16 channels with a recording a second each has a tenth of this. What a remote gives may
// be anything.
constexpr size_t kMostBytes = size_t{1} << 30;
constexpr size_t kPieceBytes = size_t{64} * 1024;

struct Deleter {
  void operator()(ZSTD_CCtx* context) const { ZSTD_freeCCtx(context); }
  void operator()(ZSTD_DCtx* context) const { ZSTD_freeDCtx(context); }
};

}  // namespace

bool packText(const std::string& text, std::string* packed) {
  const std::unique_ptr<ZSTD_CCtx, Deleter> context(ZSTD_createCCtx());
  if (context == nullptr ||
      ZSTD_isError(ZSTD_CCtx_setParameter(context.get(), ZSTD_c_compressionLevel, kLevel)) != 0 ||
      ZSTD_isError(ZSTD_CCtx_setParameter(context.get(), ZSTD_c_checksumFlag, 1)) != 0)
    return false;
  packed->resize(ZSTD_compressBound(text.size()));
  const size_t size =
      ZSTD_compress2(context.get(), packed->data(), packed->size(), text.data(), text.size());
  if (ZSTD_isError(size) != 0) return false;
  packed->resize(size);
  return true;
}

bool unpackText(const std::string& packed, std::string* text) {
  text->clear();
  const std::unique_ptr<ZSTD_DCtx, Deleter> context(ZSTD_createDCtx());
  if (context == nullptr) return false;
  ZSTD_inBuffer in = {packed.data(), packed.size(), 0};
  std::string piece(kPieceBytes, '\0');
  size_t left = 1;  // of the frame; 0 at its end
  while (in.pos < in.size) {
    ZSTD_outBuffer out = {piece.data(), piece.size(), 0};
    left = ZSTD_decompressStream(context.get(), &out, &in);
    if (ZSTD_isError(left) != 0 || out.pos > kMostBytes - text->size()) return false;
    text->append(piece, 0, out.pos);
    // What it still holds back although all was given.
    while (left != 0 && in.pos == in.size && out.pos == out.size) {
      out.pos = 0;
      left = ZSTD_decompressStream(context.get(), &out, &in);
      if (ZSTD_isError(left) != 0 || out.pos > kMostBytes - text->size()) return false;
      text->append(piece, 0, out.pos);
    }
  }
  return left == 0;
}

}  // namespace tarn
