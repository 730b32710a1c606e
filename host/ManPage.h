#pragma once

#include "platform/String.h"

namespace Provctl {

// provctl's manual page in roff (man(7)): the overview's sections, then every command's page as
// a section of its own. Made from the same pages as "provctl COMMAND --help", by the build.
String MAN_PAGE();

}  // namespace Provctl
