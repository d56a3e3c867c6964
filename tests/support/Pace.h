#pragma once

namespace tarn_test {

// Tests that repeat themselves with a fault at every place take every n-th one where a program runs
// in an emulator, many times slower: the places are those that every host build goes through.
#if defined(__arm__)
inline constexpr int kPlaceStep = 4;
#else
inline constexpr int kPlaceStep = 1;
#endif

// Nor does it try the same so often until threads meet at a bad moment: the emulator's moments are
// its own.
constexpr int tries(int onTheHost) { return kPlaceStep == 1 ? onTheHost : onTheHost / 10; }

}  // namespace tarn_test
