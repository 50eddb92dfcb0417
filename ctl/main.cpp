#include "ctl/run.h"

int main(int argc, char **argv) {
    return ctl::run(argc, argv);
}
