// frame.cpp - the trace channel, opened when the library is loaded and closed
// when it is unloaded, and the test build's seam over the system calls.
#include "frame.h"

#include <csignal>
#include <cstdarg>

HDBG _g_hCfgFileLibDbg = nullptr;

__attribute__((constructor)) static void __CFGFILELIB_AutoInit() {
    _DoDbgInit("CFGFILELIB", &_g_hCfgFileLibDbg);
}

__attribute__((destructor)) static void __CFGFILELIB_AutoShutdown() {
    _DoDbgUninitEx(&_g_hCfgFileLibDbg, "__CFGFILELIB_AutoShutdown", __FILE_NAME__, __LINE__);
}

namespace cfglib {

void TraceAt(const TraceSite *pSite, int nLevel, const char *szFunction, ...) {
    va_list args;
    va_start(args, szFunction);
    _DoDbgVPrintEx(_g_hCfgFileLibDbg, nLevel, szFunction, pSite->szFile, pSite->nLine,
                   pSite->szFormat, args);
    va_end(args);
}

} // namespace cfglib

#ifdef CFGFILE_FAULT_SEAM
namespace {
int g_nSeamCalls = 0;
int g_nSeamTarget = 0;
int g_nSeamErrno = 0;
bool g_bSeamRefuseLinks = false;
bool g_bSeamRefuseSyncs = false;
} // namespace

// nCall: the call to act on (1 = first; 0 disarms). nErrno > 0: that call
// fails with this errno; nErrno == 0: the process is killed after the call.
extern "C" CFGFILE_API void CfgFileSeam_Arm(int nCall, int nErrno) {
    g_nSeamCalls = 0;
    g_nSeamTarget = nCall;
    g_nSeamErrno = nErrno;
}

extern "C" CFGFILE_API int CfgFileSeam_Calls() {
    return g_nSeamCalls;
}

// bRefuse: hard links fail with EPERM, as on vfat.
extern "C" CFGFILE_API void CfgFileSeam_RefuseLinks(int bRefuse) {
    g_bSeamRefuseLinks = bRefuse != 0;
}

// bRefuse: syncing a new file fails with EIO, as a failing disk would.
extern "C" CFGFILE_API void CfgFileSeam_RefuseSyncs(int bRefuse) {
    g_bSeamRefuseSyncs = bRefuse != 0;
}

namespace cfglib {

bool SeamFails(bool *pbKill) {
    const bool bHit = ++g_nSeamCalls == g_nSeamTarget;
    *pbKill = bHit && g_nSeamErrno == 0;
    if (bHit && g_nSeamErrno > 0) {
        errno = g_nSeamErrno;
        return true;
    }
    return false;
}

void SeamKill() {
    raise(SIGKILL);
}

int LinkFile(const char *szOld, const char *szNew) {
    if (!g_bSeamRefuseLinks)
        return link(szOld, szNew);
    errno = EPERM;
    return -1;
}

int SyncFile(int fd) {
    if (!g_bSeamRefuseSyncs)
        return fsync(fd);
    errno = EIO;
    return -1;
}

} // namespace cfglib
#endif
