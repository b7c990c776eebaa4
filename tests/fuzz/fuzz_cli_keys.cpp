// Fuzz target: keys typed at the debug tool's command line, read by the line
// editor from standard input (a memory file in place of the terminal) and
// each finished line run through the interpreter over the base commands'
// tree, as the interactive loop does. Lines and parameters must stay within
// their buffers whatever the keys.
#include <sys/mman.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "fuzz_cli.h"
#include "ibp/isp_system.h"

namespace {

// The tree text of the six base commands as the service sends it.
constexpr char kBaseTree[] =
    "isp\ntitle:\n1\n"
    "bp\ntitle:bp\n5\n"
    "cbuf\ntitle:cbuf\n1\ninfo\ntitle:display cbuf info\n1\ncr\nend:\n0\n"
    "log\ntitle:log level\n1\n"
    "module\nstring:BP/ITF/AE/AWB/ADN/LED/AF/AF_CALI/AF_TEST/IMG/CLI/WP\n1\n"
    "level\ninteger:0-debug, 1-info, 2-warn, 3-error\n1\ncr\nend:\n0\n"
    "module\ntitle:module\n2\n"
    "cfg\ntitle:display module cfg\n1\ncr\nend:\n0\n"
    "info\ntitle:display module info\n1\ncr\nend:\n0\n"
    "proc\ntitle:proc\n1\ncfg\ntitle:display proc cfg\n1\ncr\nend:\n0\n"
    "socket\ntitle:display socket info\n1\ncr\nend:\n0\n";

// Behind every input: an escape sequence that the input leaves open takes at
// most one of these, so the last key read is an Enter and the editor ends
// between lines, where the next input starts.
constexpr char kLineEnds[] = "\r\r";

void Start()
{
    fuzzcli::StartQuiet();
    std::string sTree = kBaseTree;
    const int lKeys = memfd_create("fuzz-keys", 0);
    if (!fuzzcli::BuildTree(sTree.data()) || lKeys < 0 || dup2(lKeys, STDIN_FILENO) < 0) {
        std::fprintf(stderr, "cannot set up the tree and the key file\n");
        std::exit(1);
    }
    close(lKeys);
    CLI_SetBatchOutput(false);
    std::snprintf(gszSysPrompt, sizeof(gszSysPrompt), "%s", "[CMD] ");
}

// Each input starts with an empty line and no history.
void ResetEditor()
{
    for (char *&pcEntry : gpszHistCmd)
        ISP_free(&pcEntry);
    gulHistSavePos = 0;
    gulHistShowPos = 0;
    std::memset(gszLineBuf, 0, sizeof(gszLineBuf));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pucData, size_t ulSize)
{
    static const bool bStarted = (Start(), true);
    (void)bStarted;
    ResetEditor();
    if (ftruncate(STDIN_FILENO, 0) != 0 || pwrite(STDIN_FILENO, pucData, ulSize, 0) != static_cast<ssize_t>(ulSize) ||
        pwrite(STDIN_FILENO, kLineEnds, sizeof(kLineEnds) - 1, static_cast<off_t>(ulSize)) !=
            static_cast<ssize_t>(sizeof(kLineEnds) - 1))
        std::abort();
    std::fseek(stdin, 0, SEEK_SET);  // drops what stdio holds and any pushed-back byte
    std::clearerr(stdin);
    while (ISP_CLI_Getline()) {
        if (std::strlen(gszLineBuf) > CLI_LINE_MAX)
            std::abort();
        ISP_CLI_MainProcess();
        if (std::strlen(gszExtendParam) >= sizeof(gszExtendParam))
            std::abort();
    }
    return 0;
}
