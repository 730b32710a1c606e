#pragma once

#include <vector>

#include "platform/String.h"

namespace Provctl {

// Rows of cells as a plain-text table: columns padded to their widest cell, two blanks between
// them, the first row underlined with dashes. Trailing blanks are dropped.
String FORMAT_TABLE(const std::vector<std::vector<String>>& rows);

}  // namespace Provctl
