#include "host/Provctl.h"

int main(int argc, char** argv) {
    return Provctl::MAIN(argc, argv);
}
