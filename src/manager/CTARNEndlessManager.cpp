#include "manager/CTARNEndlessManager.h"

#include <cstdio>

#include "fat/ChunkFiles.h"

CTARNEndlessManager::CTARNEndlessManager(signed char partition, signed char kind) {
  m_partition = partition;
  m_kind = kind;
  snprintf(m_name, sizeof m_name, "endless(%s)", tarn::kindSuffix(kind));
}

CTARNEndlessManager::~CTARNEndlessManager() = default;
