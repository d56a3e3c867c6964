#pragma once

#include <cstdint>
#include <ctime>
#include <string>

#include "base/Export.h"
#include "recorder/card/CardLayout.h"

namespace tarn {

// The file that tells whoever puts a card into a PC what it is. It lies where nothing of the
// recorder does, as a file that a PC added: the places of the chunks, and the entries of their
// files, are what they would be without it. Nothing needs it, and a card may lack it. Not part of
// the interface.
inline constexpr char kReadmeName[] = "README.TXT";
TARN_API const std::string& readmeText();

// Where it goes on a card of this layout.
struct ReadmePlace {
  uint64_t byte = 0;      // 0: there is no room for it
  uint32_t clusters = 0;  // back to back
};
TARN_API ReadmePlace placeOfReadme(const CardLayout& layout);

// The same for what encodeFat() made: chains its clusters.
void linkReadme(const CardLayout& layout, uint32_t first, uint32_t count, uint8_t* out);
// For what encodeRootDirectory() made: its entry, behind all others.
void enterReadme(const CardLayout& layout, time_t when, uint8_t* root);

}  // namespace tarn
