// A C++ program built against an installed tree through find_package(cfgfile).
#include <cstdio>

#include "cfgfile_api.h"

int main(int argc, char **argv) {
    const char *file = argc > 1 ? argv[1] : "cxx_consumer.ini";
    int port = 0;

    std::remove(file);
    if (CfgFile_SetIntValue(file, "Net", "Port", 554) != CFGFILE_SUCCESS ||
        CfgFile_GetIntValue(file, "net", "port", &port, 0) != CFGFILE_SUCCESS || port != 554) {
        std::fprintf(stderr, "c++ consumer: set or get failed\n");
        return 1;
    }
    std::remove(file);
    std::puts("c++ consumer ok");
    return 0;
}
