/* A program with an ISP_ZoomIn of its own, as an image library brings one,
 * linked against the shared library: the plain name reaches this function,
 * _ISP_ZoomIn and the entry points not defined here keep the defaults.
 * Plain C11, calling through the header's declarations. Exits 1 on failure. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <stdio.h>
#include <string.h>

#include "ibp/isp_interface.h"
#include "ibp/isp_log.h"

typedef u32 (*ANY_PFN)();

static u32 gulOwnCalls;
static u32 gulRecords;
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

#define CHECK(cond)                                                               \
    do {                                                                          \
        if (!(cond)) {                                                            \
            fprintf(stderr, "%s:%d: failed: %s\n", __FILE__, __LINE__, #cond);   \
            gFailures++;                                                          \
        }                                                                         \
    } while (0)

/* Since the last reset exactly one record came in: "func entry", info, BP,
 * from isp_interface, naming the default pcFunc. */
static int OneEntryRecord(const char *pcFunc)
{
    char szTail[128];
    snprintf(szTail, sizeof(szTail), "@%-24s [INF][BP]func entry\n", pcFunc);
    size_t ulLen = strlen(gszRecord);
    size_t ulTail = strlen(szTail);
    return gulRecords == 1 && ulLen > 24 + ulTail &&
           strncmp(gszRecord + 24, "isp_interface-", 14) == 0 &&
           strcmp(gszRecord + ulLen - ulTail, szTail) == 0;
}

static void ResetRecords(void)
{
    gulRecords = 0;
    gszRecord[0] = '\0';
}

static ANY_PFN ToFunction(void *pvSym)
{
    ANY_PFN pfn;
    memcpy(&pfn, &pvSym, sizeof(pfn));
    return pfn;
}

int main(void)
{
    LOG_INIT_S stInit;
    memset(&stInit, 0, sizeof(stInit));
    stInit.ulOutputMode = LOG_OUTPUT_FUNC;
    stInit.pfnOutput = CaptureRecord;
    if (IBP_LOG_Init(&stInit) != 0) {
        fprintf(stderr, "log init failed\n");
        return 1;
    }
    ResetRecords();

    /* The program's own function, no default record. */
    CHECK(ISP_ZoomIn(5u) == 0x105u);
    CHECK(gulOwnCalls == 1);
    CHECK(gulRecords == 0);

    /* The underscore name still reaches the default. */
    ResetRecords();
    CHECK(_ISP_ZoomIn(5u) == ISP_DEFAULT_ERROR);
    CHECK(OneEntryRecord("_ISP_ZoomIn"));
    CHECK(gulOwnCalls == 1);

    /* An entry point not defined here keeps its default, whatever is passed. */
    ResetRecords();
    CHECK(ISP_ZoomOut(5u, "far", 2.5) == ISP_DEFAULT_ERROR);
    CHECK(OneEntryRecord("_ISP_ZoomOut"));
    ResetRecords();
    CHECK(ISP_Load() == 0u);
    CHECK(OneEntryRecord("_ISP_Load"));

    /* The loader binds the plain name to this program for everyone... */
    void *pvOwn = dlsym(RTLD_DEFAULT, "ISP_ZoomIn");
    CHECK(pvOwn != NULL && ToFunction(pvOwn) == (ANY_PFN)ISP_ZoomIn);
    CHECK(pvOwn != dlsym(RTLD_DEFAULT, "_ISP_ZoomIn"));
    CHECK(dlsym(RTLD_DEFAULT, "ISP_ZoomOut") == dlsym(RTLD_DEFAULT, "_ISP_ZoomOut"));

    /* ...while the library still holds its weak alias at the default. */
    void *pvLib = dlopen("libibp.so.0", RTLD_NOW | RTLD_NOLOAD);
    CHECK(pvLib != NULL);
    if (pvLib != NULL) {
        void *pvAlias = dlsym(pvLib, "ISP_ZoomIn");
        CHECK(pvAlias != NULL && pvAlias == dlsym(pvLib, "_ISP_ZoomIn"));
        CHECK(pvAlias != pvOwn);
        if (pvAlias != NULL) {
            ResetRecords();
            CHECK(ToFunction(pvAlias)(5u) == ISP_DEFAULT_ERROR);
            CHECK(OneEntryRecord("_ISP_ZoomIn"));
        }
        dlclose(pvLib);
    }
    CHECK(gulOwnCalls == 1);

    IBP_LOG_Destroy();
    if (gFailures != 0) {
        fprintf(stderr, "%d checks failed\n", gFailures);
        return 1;
    }
    puts("own ISP_ZoomIn reached; defaults intact");
    return 0;
}
