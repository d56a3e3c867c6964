#include "fat/ChunkFiles.h"

#include <cstdio>
#include <cstring>

namespace tarn {
namespace {

struct Family {
  char tag[5];
  char suffix[3];
};

// In index order of the card's info file.
constexpr Family kFamilies[kFileTypeCount] = {
    {"TAIF", "IF"}, {"MGDL", "DL"}, {"CKDL", "DL"}, {"MGSL", "SL"}, {"CKSL", "SL"},
    {"DBST", "ST"}, {"MGST", "ST"}, {"CKST", "ST"}, {"CKPC", "PC"},
};

struct Device {
  signed char partition;
  char name[kDeviceNameRoom];
};

constexpr Device kDevices[] = {
    {1, "/dev/mmcblk0p1"}, {2, "/dev/mmcblk0p2"}, {11, "/dev/sda1"},     {12, "/dev/sda2"},
    {21, "/dev/sdb1"},     {22, "/dev/sdb2"},     {51, "/dev/sdblk0p1"},
};
constexpr char kOtherDevice[] = "/tmp/dev/mmc";

bool inTable(int fileType) { return fileType >= 0 && fileType < kFileTypeCount; }

}  // namespace

const char* fileTag(int fileType) { return inTable(fileType) ? kFamilies[fileType].tag : ""; }

const char* kindSuffix(int fileType) { return inTable(fileType) ? kFamilies[fileType].suffix : ""; }

int fileTypeOfName(const char* name) {
  for (int type = 0; type < kFileTypeCount; ++type) {
    if (strncmp(name, kFamilies[type].tag, 4) == 0) return type;
  }
  return -1;
}

const char* deviceName(signed char partition) {
  for (const Device& device : kDevices) {
    if (device.partition == partition) return device.name;
  }
  return kOtherDevice;
}

char* chunkFileName(signed char partition, const char* tag, int chunk, char* out) {
  snprintf(out, kChunkFileNameRoom, "%s:%s%04d", deviceName(partition), tag, chunk);
  return out;
}

}  // namespace tarn
