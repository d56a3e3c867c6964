#pragma once

#include <string>

namespace tarn_fuzz {

// Every column of all rows of the recorder's database; empty when it cannot be read.
std::string databaseRows();

}  // namespace tarn_fuzz
