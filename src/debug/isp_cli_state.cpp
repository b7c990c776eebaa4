// The state of the command line that its parts share: the exported line
// buffers and history of the editor, and the ways of the ibp-dt program that
// the editor, the interpreter and the program's layer all look at. Nothing
// here calls the other parts of the command line.
#include <cstdio>
#include <cstring>

#include "debug/isp_cli_priv.h"

IBP_LOG_SOURCE("isp_cli");

extern "C" {
IBP_API char gszSysPrompt[CLI_PROMPT_LEN];
IBP_API char gszLineBuf[CLI_LINE_LEN];
IBP_API char gszCursLineBuf[CLI_LINE_LEN];
IBP_API char *gpszHistCmd[CLI_HIST_NUM];
IBP_API u32 gulHistSavePos;
IBP_API u32 gulHistShowPos;
}

CLI_TOOL_S gstCliTool = {};

namespace {

// How many continuation bytes a UTF-8 lead byte announces; 0 for any other.
u32 CLI_Utf8Tail(u8 ucByte)
{
    if (ucByte < 0xC2 || ucByte > 0xF4)
        return 0;
    return ucByte >= 0xF0 ? 3 : ucByte >= 0xE0 ? 2 : 1;
}

}  // namespace

void CLI_ToolOn(bool bTermKeys)
{
    gstCliTool.bOn = true;
    gstCliTool.bTermKeys = bTermKeys;
}

std::string CLI_ServiceText(const char *pcText)
{
    if (!gstCliTool.bOn)
        return pcText;
    std::string sOut;
    u32 ulTail = 0;  // continuation bytes still due to a UTF-8 sequence
    for (const char *pc = pcText; *pc != '\0'; pc++) {
        u8 ucByte = static_cast<u8>(*pc);
        // U+0080..U+009F are the C1 controls in UTF-8: shown as the bare byte
        // is, for a terminal that takes UTF-8 acts on them as on the byte.
        if (ucByte == 0xC2 && static_cast<u8>(pc[1]) >= 0x80 && static_cast<u8>(pc[1]) < 0xA0)
            ucByte = static_cast<u8>(*++pc), ulTail = 0;
        const bool bContinues = ulTail != 0 && (ucByte & 0xC0) == 0x80;
        ulTail = bContinues ? ulTail - 1 : CLI_Utf8Tail(ucByte);
        if ((ucByte < 0x20 && ucByte != '\n' && ucByte != '\t') || ucByte == 0x7F) {
            sOut += '^';
            sOut += static_cast<char>(ucByte ^ 0x40);  // ^[ for ESC, ^? for DEL
        } else if (ucByte >= 0x80 && ucByte < 0xA0 && !bContinues) {
            char acHex[5];
            std::snprintf(acHex, sizeof(acHex), "\\x%02x", ucByte);  // a C1 control such as CSI
            sOut += acHex;
        } else {
            sOut += *pc;
        }
    }
    return sOut;
}

void CLI_WriteService(const char *pcText) { CLI_Write(CLI_ServiceText(pcText).c_str()); }

void CLI_LineFull()
{
    CLI_ERR("out of max cmd buff");
    if (gstCliTool.bOn && !CLI_IsBatchOutput())
        CLI_Write("\a");
}

