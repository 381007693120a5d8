#include <sys/stat.h>

#include "PathPlanner/RunPathPlanner.h"

int main(int argc, char** argv) {
    // The tool runs as root with whatever umask its caller had; its log and trace
    // must never come out writable by other users, so group and other write are
    // always masked. A stricter caller's umask is kept.
    umask(umask(0) | S_IWGRP | S_IWOTH);
    return runPathPlanner(argc, argv);
}
