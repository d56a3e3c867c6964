#pragma once

#include "base/Export.h"
#include "manager/CTARNManagerBase.h"

// Client-side manager of any kind of endless (ring) chunk, with the base class's operations.
class TARN_API CTARNEndlessManager : public CTARNManagerBase {
 public:
  // `kind` is an index of the table of chunk families (fat/ChunkFiles.h) and is sent as given.
  CTARNEndlessManager(signed char partition, signed char kind);
  ~CTARNEndlessManager() override;
};
