#pragma once

#include <cstdint>

// What the rig asks of a program that waits in front of its main(): to fork, so that neither the
// system nor the loader has to start it anew for each fault. The descriptors that the fork begins
// with come along: its streams, its promises, and what is to become `readyFd`.
namespace faults {

enum ForkFd { kForkInput, kForkOutput, kForkErrors, kForkPromises, kForkReady, kForkFds };

struct ForkRequest {
  int32_t group;  // of processes, to belong to
  int32_t ready;  // 1: kForkReady is meant
};

// Where the descriptor for a server's "ready" goes.
inline constexpr int kReadyFd = 9;
// Of the socket that requests come by, in the program; it is out of the way of what a program
// opens.
inline constexpr int kForkSocket = 1000;
inline constexpr char kForkVariable[] = "TARN_FAULTS_FORKS";

}  // namespace faults
