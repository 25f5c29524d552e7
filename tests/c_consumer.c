/* A C99 program using the library through its public headers only. */
#include <stdio.h>
#include <string.h>

#include "cfgfile_api.h"
#include "dbgtrace.h"
#include "video/video_formats.h"

int main(int argc, char **argv) {
    const char *szFile = argc > 1 ? argv[1] : "c_consumer.ini";
    char szValue[64];
    size_t nSize = sizeof(szValue);
    int nPort = 0;

    remove(szFile);
    if (CfgFile_SetStringValue(szFile, "Net", "Host", "device.local") != CFGFILE_SUCCESS ||
        CfgFile_GetStringValue(szFile, "NET", "HOST", szValue, &nSize, "") != CFGFILE_SUCCESS ||
        strcmp(szValue, "device.local") != 0 ||
        CfgFile_GetIntValue(szFile, "Net", "Missing", &nPort, 7) != CFGFILE_KEY_NOT_FOUND ||
        nPort != 7) {
        fprintf(stderr, "c consumer failed\n");
        return 1;
    }
    remove(szFile);
    printf("c consumer ok\n");
    return 0;
}
