// The daemon's entry; everything else is in the core library, which test programs link as well.
#include "main.h"

int main(int argc, char **argv) {
    return netwarden_main(argc, argv);
}
