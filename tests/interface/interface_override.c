/* A plain C11 program with an ISP_ZoomIn of its own, as an image library brings one, linked against the
 * shared library: the plain name reaches this function, _ISP_ZoomIn and the entry points not defined here
 * keep the defaults. Exits 1 on failure. */
#include <stdio.h>
#include <string.h>

#include "ibp/isp_interface.h"
#include "ibp/isp_log.h"

static u32 gulOwnCalls, gulRecords;
static char gszRecord[1024];
static int gFailures;

/* Compatible with the header's declaration, which has no prototype in C11. */
u32 ISP_ZoomIn(u32 ulSpeed)
{
    gulOwnCalls++;
    return 0x100u + ulSpeed;
}

static s32 CaptureRecord(const char *pcText)
{
    gulRecords++;
    snprintf(gszRecord, sizeof(gszRecord), "%s", pcText);
    return 0;
}

#define CHECK(cond) ((cond) ? (void)0 : (void)(gFailures++, fprintf(stderr, "line %d: %s\n", __LINE__, #cond)))

/* Exactly one record since the last call: "func entry", info, BP, from isp_interface, naming pcFunc. */
static int OneEntryRecord(const char *pcFunc)
{
    char szTail[128];
    snprintf(szTail, sizeof(szTail), "@%-24s [INF][BP]func entry\n", pcFunc);
    size_t ulLen = strlen(gszRecord), ulTail = strlen(szTail);
    int ok = gulRecords == 1 && ulLen > 24 + ulTail && strncmp(gszRecord + 24, "isp_interface-", 14) == 0 &&
             strcmp(gszRecord + ulLen - ulTail, szTail) == 0;
    gulRecords = 0;
    return ok;
}

int main(void)
{
    LOG_INIT_S stInit = {.ulOutputMode = LOG_OUTPUT_FUNC, .pfnOutput = CaptureRecord};
    CHECK(IBP_LOG_Init(&stInit) == 0);
    gulRecords = 0;
    CHECK(ISP_ZoomIn(5u) == 0x105u && gulOwnCalls == 1 && gulRecords == 0); /* ours, no default record */
    CHECK(_ISP_ZoomIn(5u) == ISP_DEFAULT_ERROR && OneEntryRecord("_ISP_ZoomIn"));
    CHECK(ISP_ZoomOut(5u, "far", 2.5) == ISP_DEFAULT_ERROR && OneEntryRecord("_ISP_ZoomOut") && gulOwnCalls == 1);
    IBP_LOG_Destroy();
    printf("%s\n", gFailures == 0 ? "own ISP_ZoomIn reached; defaults intact" : "checks failed");
    return gFailures != 0;
}
