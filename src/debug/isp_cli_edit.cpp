// The interactive side of the command line: raw terminal set-up and
// restore, the line editor with its cursor, the history ring, the main loop.
//
// The editor writes no terminal control sequences. It moves the terminal's
// cursor by writing text again from column 0: a CR, the prompt, then the
// part of the line in front of the cursor. Keys it knows: printable bytes,
// CR (LF arrives as CR), BS 0x08 (backspace), DEL 0x7F (delete under the
// cursor), TAB and "?" (end the line and keep it on the prompt), ESC with
// Up, Down, Right and Left as ESC [ x, ESC O x or ESC x; ESC [ digits ~ is
// read and does nothing. Every other byte is ignored.
//
// With the keys of the ibp-dt program (gstCliTool.bTermKeys) the terminal's
// own erase character, 0x7F on Linux, is the backspace, ESC [ 3 ~ deletes
// under the cursor, and Ctrl-D on an empty line leaves.
#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "debug/isp_cli_priv.h"
#include "ibp/isp_module.h"
#include "ibp/isp_system.h"

IBP_LOG_SOURCE("isp_cli");

namespace {

constexpr char kPrompt[] = "[CMD] ";
constexpr u8 kNoByte = 0xFF;  // what ISP_CLI_NoWaitGetChar gives when nothing waits
constexpr u8 kCtrlD = 0x04;

// Null while the user types at the end of the line; otherwise the place of
// the cursor in gszLineBuf, which may be the end. The line is kept
// terminated at all times, so its end is always strlen away.
char *pcCursor = nullptr;

enum class CliKey : u8 { kIgnore = 0, kEnter, kBackspace, kDelete, kEndKeep, kEscape, kPrintable, kLeave };

constexpr std::array<CliKey, 256> CLI_MakeKeyTable()
{
    std::array<CliKey, 256> aenKeys{};
    for (u32 c = 0x20; c <= 0x7E; c++)
        aenKeys[c] = CliKey::kPrintable;
    aenKeys['\r'] = CliKey::kEnter;
    aenKeys[0x08] = CliKey::kBackspace;
    aenKeys[0x7F] = CliKey::kDelete;
    aenKeys['\t'] = CliKey::kEndKeep;
    aenKeys['?'] = CliKey::kEndKeep;
    aenKeys[0x1B] = CliKey::kEscape;
    return aenKeys;
}

constexpr std::array<CliKey, 256> kKeyTable = CLI_MakeKeyTable();

// The key table, or with the tool's keys the terminal's erase character as
// the backspace (where the table has no other use for the byte) and Ctrl-D.
CliKey CLI_KeyOf(u8 ucByte)
{
    if (!gstCliTool.bTermKeys)
        return kKeyTable[ucByte];
    const bool bFree = kKeyTable[ucByte] == CliKey::kIgnore || kKeyTable[ucByte] == CliKey::kDelete;
    if (ucByte == gstCliTool.ucEraseKey && ucByte != 0 && bFree)
        return CliKey::kBackspace;
    return ucByte == kCtrlD ? CliKey::kLeave : kKeyTable[ucByte];
}

size_t CLI_LineLen() { return strlen(gszLineBuf); }
char *CLI_LineEnd() { return gszLineBuf + CLI_LineLen(); }

// The next key, or EOF once standard input has ended. What was printed
// reaches the terminal before the wait.
int CLI_ReadKey()
{
    for (;;) {
        fflush(stdout);
        int lKey = getc(stdin);
        if (lKey != EOF)
            return lKey;
        if (!ferror(stdin))
            return EOF;
        const int lErr = errno;
        clearerr(stdin);
        if (lErr == EINTR)
            continue;
        if (lErr != EAGAIN && lErr != EWOULDBLOCK)
            return EOF;
        // Someone left the input non-blocking: wait for a byte instead of spinning.
        pollfd stPoll = {fileno(stdin), POLLIN, 0};
        if (poll(&stPoll, 1, -1) < 0 && errno != EINTR)
            return EOF;
    }
}

void CLI_Refresh()
{
    ISP_CLI_ClearLine();
    ISP_CLI_RedrawLine();
    ISP_CLI_PrintCursorPos(pcCursor);
}

void CLI_OnPrintable(char cKey)
{
    const size_t ulLen = CLI_LineLen();
    if (ulLen >= CLI_LINE_MAX) {
        CLI_LineFull();
        return;
    }
    if (pcCursor == nullptr) {
        gszLineBuf[ulLen] = cKey;
        gszLineBuf[ulLen + 1] = '\0';
        putc(cKey, stdout);
        return;
    }
    memmove(pcCursor + 1, pcCursor, strlen(pcCursor) + 1);
    *pcCursor++ = cKey;
    ISP_CLI_RedrawLine();
    ISP_CLI_PrintCursorPos(pcCursor);
}

void CLI_OnBackspace()
{
    if (pcCursor != nullptr && *pcCursor == '\0')
        pcCursor = nullptr;
    if (pcCursor == nullptr) {
        const size_t ulLen = CLI_LineLen();
        if (ulLen != 0) {
            gszLineBuf[ulLen - 1] = '\0';
            CLI_Write("\b \b");
        }
        return;
    }
    if (pcCursor == gszLineBuf)
        return;
    memmove(pcCursor - 1, pcCursor, strlen(pcCursor) + 1);
    pcCursor--;
    CLI_Refresh();
}

void CLI_OnDelete()
{
    if (pcCursor == nullptr)
        return;
    if (*pcCursor == '\0') {
        pcCursor = nullptr;
        return;
    }
    memmove(pcCursor, pcCursor + 1, strlen(pcCursor + 1) + 1);
    CLI_Refresh();
}

// TAB and "?" go to the end of the line and end it through a pushed-back CR.
// On a full line the byte is refused and the line stays in the editor: with
// it the line would not fit its buffer.
void CLI_OnEndKeep(char cKey)
{
    const size_t ulLen = CLI_LineLen();
    if (ulLen >= CLI_LINE_MAX) {
        CLI_LineFull();
        return;
    }
    ungetc('\r', stdin);
    gszLineBuf[ulLen] = cKey;
    gszLineBuf[ulLen + 1] = '\0';
    if (pcCursor == nullptr)
        putc(cKey, stdout);
}

void CLI_OnLeft()
{
    if (pcCursor == nullptr)
        pcCursor = CLI_LineEnd();
    if (pcCursor > gszLineBuf) {
        pcCursor--;
        ISP_CLI_PrintCursorPos(pcCursor);
    }
}

void CLI_OnRight()
{
    if (pcCursor == nullptr || *pcCursor == '\0')
        return;
    pcCursor++;
    ISP_CLI_PrintCursorPos(pcCursor);
    if (*pcCursor == '\0')
        pcCursor = nullptr;
}

void CLI_OnEscape()
{
    u8 ucKey = ISP_CLI_NoWaitGetChar();
    if (ucKey == '[' || ucKey == 'O')
        ucKey = ISP_CLI_NoWaitGetChar();
    if (ucKey >= '1' && ucKey <= '9') {  // ESC [ 2 ~, ESC [ 1 5 ~: read and forgotten
        const u8 ucNext = ISP_CLI_NoWaitGetChar();
        if (ucNext >= '0' && ucNext <= '9')
            (void)ISP_CLI_NoWaitGetChar();
        if (gstCliTool.bTermKeys && ucKey == '3' && ucNext == '~')  // the Delete key
            CLI_OnDelete();
        return;
    }
    switch (ucKey) {
    case 'A': ISP_CLI_ShowHistroyCmd(CLI_HIST_UP); break;
    case 'B': ISP_CLI_ShowHistroyCmd(CLI_HIST_DOWN); break;
    case 'C': CLI_OnRight(); break;
    case 'D': CLI_OnLeft(); break;
    default: break;
    }
}

void CLI_OnEnter()
{
    pcCursor = nullptr;
    gulHistShowPos = gulHistSavePos;
    const size_t ulLen = CLI_LineLen();
    if (ulLen != 0 && gszLineBuf[ulLen - 1] != '?' && gszLineBuf[ulLen - 1] != '\t')
        ISP_CLI_SaveHistroyCmd();
}

// Restores the terminal settings on every way out of the loop.
class CliTermGuard {
public:
    explicit CliTermGuard(const termios &stSaved) : stSaved_(stSaved) {}
    ~CliTermGuard() { tcsetattr(fileno(stdin), TCSANOW, &stSaved_); }
    CliTermGuard(const CliTermGuard &) = delete;
    CliTermGuard &operator=(const CliTermGuard &) = delete;

private:
    termios stSaved_;
};

}  // namespace

// ---------------------------------------------------------------- screen

void ISP_CLI_RedrawLine()
{
    CLI_Printf("\r%s", gszSysPrompt);
    CLI_Printf("%s", gszLineBuf);
}

void ISP_CLI_ClearLine()
{
    CLI_Printf("\r%s", gszSysPrompt);
    CLI_Blanks(CLI_LineLen() + 1);
}

void ISP_CLI_PrintCursorPos(const char *pcCursorPtr)
{
    if (pcCursorPtr == nullptr) {
        CLI_ERR("pcCursorPtr is NULL");
        return;
    }
    const size_t ulLen = static_cast<size_t>(pcCursorPtr - gszLineBuf);
    memcpy(gszCursLineBuf, gszLineBuf, ulLen);
    gszCursLineBuf[ulLen] = '\0';
    CLI_Printf("\r%s", gszSysPrompt);
    CLI_Printf("%s", gszCursLineBuf);
}

// ---------------------------------------------------------------- history

void ISP_CLI_SaveHistroyCmd()
{
    gulHistSavePos %= CLI_HIST_NUM;  // exported: a stray value must not index past the ring
    const u32 ulLast = (gulHistSavePos + CLI_HIST_NUM - 1) % CLI_HIST_NUM;
    if (gpszHistCmd[ulLast] != nullptr && strcmp(gpszHistCmd[ulLast], gszLineBuf) == 0)
        return;
    ISP_free(&gpszHistCmd[gulHistSavePos]);
    const u32 ulSize = static_cast<u32>(CLI_LineLen() + 1);
    auto *pcCopy = static_cast<char *>(ISP_calloc(0, 1, ulSize));
    if (pcCopy == nullptr) {
        CLI_ERR("malloc %u failed!", ulSize);
        return;
    }
    memcpy(pcCopy, gszLineBuf, ulSize);
    gpszHistCmd[gulHistSavePos] = pcCopy;
    gulHistSavePos = (gulHistSavePos + 1) % CLI_HIST_NUM;
    gulHistShowPos = gulHistSavePos;
}

void ISP_CLI_ShowHistroyCmd(CLI_HIST_DIR_E enDir)
{
    // One slot back for Up, one forth for Down; the slot at gulHistSavePos
    // is the end of the walk either way, so it ends within 11 steps.
    const u32 ulStep = enDir == CLI_HIST_UP ? CLI_HIST_NUM - 1 : 1;
    gulHistSavePos %= CLI_HIST_NUM;
    u32 ulPos = gulHistShowPos % CLI_HIST_NUM;
    for (;;) {
        ulPos = (ulPos + ulStep) % CLI_HIST_NUM;
        if (ulPos == gulHistSavePos) {
            gulHistShowPos = (ulPos + CLI_HIST_NUM - ulStep) % CLI_HIST_NUM;
            return;
        }
        if (gpszHistCmd[ulPos] != nullptr)
            break;
    }
    const char *pcEntry = gpszHistCmd[ulPos];
    gulHistShowPos = ulPos;
    CLI_INF("hist: len = %u cmd = <%s>", static_cast<u32>(strlen(pcEntry)), pcEntry);
    CLI_Printf("\r%s", gszSysPrompt);
    CLI_Blanks(CLI_LineLen());
    CLI_Printf("\r%s", gszSysPrompt);
    CLI_Printf("%s", pcEntry);
    // Bounded: the ring is exported, and an entry put there by hand may be long.
    ISP_snprintf(gszLineBuf, sizeof(gszLineBuf), "%s", pcEntry);
    pcCursor = CLI_LineEnd();
}

// ---------------------------------------------------------------- keys

u8 ISP_CLI_NoWaitGetChar()
{
    const int lFlags = ISP_fcntl(0, F_GETFL, 0);
    // Without the flags in hand, setting them would set every flag there is.
    if (lFlags == -1 || ISP_fcntl(0, F_SETFL, lFlags | O_NONBLOCK) == -1) {
        CLI_ERR("ISP_fcntl fail");
        return 0;
    }
    const int lKey = getc(stdin);
    // Nothing waiting is no error of the stream; a real end of input stays
    // marked, so that the next blocking read sees it.
    if (lKey == EOF && !feof(stdin))
        clearerr(stdin);
    if (ISP_fcntl(0, F_SETFL, lFlags) == -1) {
        CLI_ERR("ISP_fcntl fail");
        return 0;
    }
    return lKey == EOF ? kNoByte : static_cast<u8>(lKey);
}

bool ISP_CLI_Getline()
{
    CLI_Printf("\r%s", gszSysPrompt);
    CLI_Printf("%s", gszLineBuf);
    for (;;) {
        const int lKey = CLI_ReadKey();
        if (lKey == EOF)
            return false;
        const char cKey = static_cast<char>(lKey);
        switch (CLI_KeyOf(static_cast<u8>(lKey))) {
        case CliKey::kEnter: CLI_OnEnter(); return true;
        case CliKey::kBackspace: CLI_OnBackspace(); break;
        case CliKey::kDelete: CLI_OnDelete(); break;
        case CliKey::kEndKeep: CLI_OnEndKeep(cKey); break;
        case CliKey::kEscape: CLI_OnEscape(); break;
        case CliKey::kPrintable: CLI_OnPrintable(cKey); break;
        case CliKey::kLeave:
            if (CLI_LineLen() == 0)
                return false;
            break;
        case CliKey::kIgnore: break;
        }
    }
}

// ---------------------------------------------------------------- main loop

void CLI_Loop()
{
    // Only the first byte counts: every command begins with "isp", so a
    // line that begins with "q" can mean nothing but leaving.
    while (ISP_CLI_Getline() && ISP_strncmp(gszLineBuf, "quit", 1) != 0) {
        if (gstCliTool.bOn)
            (void)CLI_ToolLine();
        else
            ISP_CLI_MainProcess();
    }
}

void ISP_CLI_Run()
{
    // Without a tree the loop still runs, and no word matches; with the
    // tool's ways the next line fetches it again.
    if (gstCliTool.bOn)
        (void)CLI_ToolFetchTree();
    else
        (void)ISP_CLI_ExecuteCmd(CMD_MSG_GET_TREE, "");
    const int lFd = fileno(stdin);
    termios stSaved{};
    (void)tcgetattr(lFd, &stSaved);
    gstCliTool.ucEraseKey = stSaved.c_cc[VERASE] != _POSIX_VDISABLE ? stSaved.c_cc[VERASE] : 0;
    termios stRaw = stSaved;
    cfmakeraw(&stRaw);
    stRaw.c_oflag |= OPOST;  // the terminal still turns LF into CR LF
    stRaw.c_iflag |= INLCR;  // Enter as LF arrives as CR
    const int lRet = tcsetattr(lFd, TCSAFLUSH, &stRaw);
    if (lRet != 0) {
        const int lErr = errno;
        CLI_ERR("tcsetattr fail errcode:%d(%s). retval:%u", lErr, strerror(lErr), static_cast<u32>(lRet));
        fprintf(stderr, "%s\n", "\r\nFailed to set attributes");
        tcsetattr(lFd, TCSANOW, &stSaved);
        ISP_CLI_DestroyCmdTree(gpCmdTreeNode);
        gpCmdTreeNode = nullptr;
        exit(1);
    }
    CliTermGuard stGuard(stSaved);
    CLI_SetBatchOutput(false);
    ISP_snprintf(gszSysPrompt, sizeof(gszSysPrompt), "%s", kPrompt);
    memset(gszLineBuf, 0, sizeof(gszLineBuf));
    pcCursor = nullptr;
    // Ends on a line that begins with "q" and also when standard input ends,
    // so that a terminal that goes away never leaves the tool spinning.
    CLI_Loop();
    CLI_Puts("\r");
    if (gpCmdTreeNode != nullptr)
        ISP_CLI_DestroyCmdTree(gpCmdTreeNode);
    gpCmdTreeNode = nullptr;  // exported: no dangling pointer for anyone to follow
    fflush(stdout);
}

extern "C" IBP_API u32 ISP_CLI_Init(void)
{
    gulDestModuleID = MOD_ID_ISP_CMD;
    CLI_DropTree();  // a second call finds the spare record of the first
    if (ISP_CLI_InitTreeRoot(&gpCmdTreeNode) != 0) {
        CLI_ERR("fail to ISP_CLI_InitTreeRoot().");
        return 1;
    }
    if (ISP_CLI_InitTreeRoot(&gpCmdNodeRoot) != 0) {
        ISP_free(&gpCmdTreeNode);
        CLI_ERR("fail to ISP_CLI_InitTreeRoot().");
        return 1;
    }
    ISP_CLI_Run();
    return 0;
}
