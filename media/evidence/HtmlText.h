#pragma once

#include <string>
#include <string_view>

#include "base/Export.h"

namespace tarn {

// Any bytes as text of an HTML page, within elements and quoted attributes: nothing of them is
// markup, steers the page or changes the direction of what stands beside it. Bytes that are no
// UTF-8 become U+FFFD, as do control characters.
TARN_API std::string htmlText(std::string_view text);

}  // namespace tarn
