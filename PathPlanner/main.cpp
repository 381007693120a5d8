#include "PathPlanner/ExecPathPlanner.h"

int main(int argc, char** argv) {
    return runPathPlanner(argc, argv);
}
