#include "cli/app.h"

int
main(int argc, char** argv) {
    return quorvane::cli::run(argc, argv);
}
