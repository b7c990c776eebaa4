// Shared by the fuzz targets of the debug tool's command line: a quiet
// process without the runtime (a request fails at once, as with no module to
// speak as), and the tree copy made from a tree text as an answer makes it.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "debug/isp_cli_priv.h"
#include "fuzz_log.h"

namespace fuzzcli {

// The log goes to a sink and the terminal output to /dev/null; libFuzzer
// and the replay report on standard error.
inline void StartQuiet()
{
    fuzzlog::Start();
    const int lNull = open("/dev/null", O_WRONLY);
    if (lNull < 0 || dup2(lNull, STDOUT_FILENO) < 0) {
        std::fprintf(stderr, "cannot send the terminal output to /dev/null\n");
        std::exit(1);
    }
    close(lNull);
}

// Replaces the tree copy with the one built from pcText (changed in place),
// or with empty roots when it cannot be built.
inline bool BuildTree(char *pcText)
{
    CLI_DropTree();
    if (ISP_CLI_InitTreeRoot(&gpCmdTreeNode) != 0 || ISP_CLI_InitTreeRoot(&gpCmdNodeRoot) != 0)
        std::abort();
    if (ISP_CLI_BuildCmdTreeByStr(pcText) != 0) {
        CLI_ResetTree();
        return false;
    }
    return true;
}

}  // namespace fuzzcli
