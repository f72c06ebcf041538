// SPDX-License-Identifier: MIT
#include "inside/inside.h"

#include <cstdlib>
#include <cstring>

int main(int argc, char **argv)
{
    const char *slash = argc > 0 ? std::strrchr(argv[0], '/') : nullptr;
    const char *name = slash != nullptr ? slash + 1 : (argc > 0 ? argv[0] : "sh");
    if (std::strcmp(name, "board-init") == 0 && argc == 3)
        return inside::RunInit(argv[1], std::atoi(argv[2]));
    int status = 0;
    if (inside::RunStandIn(name, argc, argv, status))
        return status;
    return inside::RunRecorder(argc, argv); // a shell may be started under any name
}
