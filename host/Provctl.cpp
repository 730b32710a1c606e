#include "host/Provctl.h"

#include <cstdio>

namespace Provctl {
int MAIN(int, char**) {
    std::fprintf(stderr, "provctl: not yet\n");
    return 2;
}
}  // namespace Provctl
