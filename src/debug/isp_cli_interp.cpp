// The interpreter of the command line: cuts a finished line into words and
// walks them down the tree copy. The walk either reports where the line went
// wrong, completes or lists candidates on TAB, or sends the command.
//
// The matcher answers with a status; the walk knows the word at fault; one
// renderer turns both into the caret line and the text of the report.
#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <string>

#include "debug/isp_cli_priv.h"
#include "ibp/isp_log.h"
#include "ibp/isp_module.h"
#include "ibp/isp_system.h"

IBP_LOG_SOURCE("isp_cli");

extern "C" {
IBP_API char gszExtendParam[CLI_EXT_PARAM_LEN];
}

namespace {

constexpr u32 kMaxWords = 20;
constexpr u32 kWordLen = 40;  // 39 characters and a NUL
// "isp bp log cli <level>": the debug tool's own log threshold.
constexpr char kOwnLevelCmd[] = "<isp bp log module level >cli";

struct CLI_WORDS_S {
    u32 ulCmdArgc;
    char acCmdArgv[kMaxWords][kWordLen];
    u32 aulStart[kMaxWords];  // where each word starts in gszLineBuf
};

enum class CliReport : u8 { kWrong = 0, kAmbiguous, kIncomplete };

struct CLI_REPORT_S {
    const char *pcCaret;
    const char *pcText;
    CLI_RESULT_E enResult;
};

constexpr CLI_REPORT_S kReports[] = {
    {"^", "\r\nWrong command input!", CLI_RESULT_WRONG},
    {" ^", "\r\nAmbiguous command input!", CLI_RESULT_AMBIGUOUS},
    {" ^", "\r\nIncomplete command input!", CLI_RESULT_INCOMPLETE},
};

enum class CliMatch : u8 { kFound, kNone, kAmbiguous };

struct CLI_MATCH_S {
    CliMatch enStatus;
    CLI_NODE_S *pstNode;
    bool bParam;  // the node took the word as a parameter
};

bool CLI_IsLineEnd(char c) { return c == '\0' || c == '\n'; }
bool CLI_IsKeepByte(char c) { return c == '?' || c == '\t'; }

void CLI_SplitWords(const char *pcLine, CLI_WORDS_S *pstWords)
{
    const char *pc = pcLine;
    pstWords->ulCmdArgc = 0;
    while (pstWords->ulCmdArgc < kMaxWords) {  // the rest of the line is ignored
        while (*pc == ' ')
            pc++;
        if (CLI_IsLineEnd(*pc))
            return;
        const u32 ulIdx = pstWords->ulCmdArgc++;
        char *pcWord = pstWords->acCmdArgv[ulIdx];
        pstWords->aulStart[ulIdx] = static_cast<u32>(pc - pcLine);
        u32 ulLen = 0;
        // A word longer than 39 characters goes on as the next word.
        while (!CLI_IsLineEnd(*pc) && *pc != ' ' && ulLen < kWordLen - 1)
            pcWord[ulLen++] = *pc++;
        pcWord[ulLen] = '\0';
    }
}

// Bounds of word ulIdx of the line as the user sees it, blanks and TABs
// between words; false if the line has fewer words.
bool CLI_WordBounds(const char *pcLine, u32 ulIdx, size_t *pulStart, size_t *pulEnd)
{
    size_t ulPos = 0;
    for (u32 ulNum = 0;; ulNum++) {
        while (pcLine[ulPos] == ' ' || pcLine[ulPos] == '\t')
            ulPos++;
        if (pcLine[ulPos] == '\0')
            return false;
        *pulStart = ulPos;
        while (pcLine[ulPos] != '\0' && pcLine[ulPos] != ' ' && pcLine[ulPos] != '\t')
            ulPos++;
        *pulEnd = ulPos;
        if (ulNum == ulIdx)
            return true;
    }
}

size_t CLI_TrimmedLen(const char *pcLine)
{
    size_t ulLen = strlen(pcLine);
    while (ulLen != 0 && strchr(" \t\n\r", pcLine[ulLen - 1]) != nullptr)
        ulLen--;
    return ulLen;
}

// The one renderer of the three reports: a caret under the line as the user
// sees it behind the prompt, then the text.
CLI_RESULT_E CLI_PrintReport(CliReport enReport, u32 ulWordIdx)
{
    const CLI_REPORT_S &stReport = kReports[static_cast<u8>(enReport)];
    const char *pcCaret = stReport.pcCaret;
    size_t ulStart = 0, ulEnd = 0, ulColumn = 0;
    switch (enReport) {
    case CliReport::kWrong:
        ulColumn = CLI_WordBounds(gszLineBuf, ulWordIdx, &ulStart, &ulEnd) ? ulStart : strlen(gszLineBuf);
        break;
    case CliReport::kAmbiguous:
        // Behind the word before it, one blank, then the caret; the first
        // word has none before it and gets the caret under its start.
        if (ulWordIdx > 0 && CLI_WordBounds(gszLineBuf, ulWordIdx - 1, &ulStart, &ulEnd)) {
            ulColumn = ulEnd;
        } else {
            ulColumn = CLI_WordBounds(gszLineBuf, ulWordIdx, &ulStart, &ulEnd) ? ulStart : 0;
            pcCaret = "^";
        }
        break;
    case CliReport::kIncomplete: ulColumn = CLI_TrimmedLen(gszLineBuf); break;
    }
    // Without a terminal a report is no answer: standard output keeps those alone.
    const bool bBatch = CLI_IsBatchOutput();
    if (bBatch) {
        CLI_BatchToStderr(true);
        CLI_Write(gszLineBuf);  // no terminal has echoed it
    }
    CLI_Puts("\r");
    CLI_Blanks(strlen(gszSysPrompt) + ulColumn);
    CLI_Write(pcCaret);
    CLI_Puts(stReport.pcText);
    if (bBatch)
        CLI_BatchToStderr(false);
    return stReport.enResult;
}

bool CLI_IsNumeric(const char *pcWord)
{
    if (pcWord[0] != '-' && isdigit(static_cast<u8>(pcWord[0])) == 0)
        return false;
    for (const char *pc = pcWord + 1; *pc != '\0'; pc++)
        if (isdigit(static_cast<u8>(*pc)) == 0)
            return false;
    return true;
}

// An end node takes no word: nothing stands behind it, so "cr" typed there
// is Wrong. A root without a title is no tree and takes nothing either.
bool CLI_IsCandidate(const CLI_NODE_S *pstNode)
{
    return pstNode->enParamType != CMD_PARAM_END && pstNode->szTitle[0] != '\0';
}

bool CLI_Accepts(const CLI_NODE_S *pstNode, const char *pcWord, bool bNumeric)
{
    return CLI_IsCandidate(pstNode) && (ISP_strncmp(pstNode->szTitle, pcWord, strlen(pcWord)) == 0 ||
                                        (pstNode->enParamType == CMD_PARAM_INTEGER && bNumeric) ||
                                        pstNode->enParamType == CMD_PARAM_STRING);
}

// The current node and the rest of its sibling ring, in the order of the tree.
template <typename FN> void CLI_ForEachOnRing(CLI_NODE_S *pstCur, FN &&fnVisit)
{
    if (pstCur == nullptr)
        return;
    CLI_NODE_S *pstNode = pstCur;
    do {
        fnVisit(pstNode);
        pstNode = CLI_NextSibling(pstNode);
    } while (pstNode != pstCur);
}

CLI_MATCH_S CLI_MatchWord(CLI_NODE_S *pstCur, const char *pcWord)
{
    const bool bNumeric = CLI_IsNumeric(pcWord);
    u32 ulNum = 0;
    CLI_NODE_S *pstHit = nullptr;
    CLI_ForEachOnRing(pstCur, [&](CLI_NODE_S *pstNode) {
        if (CLI_Accepts(pstNode, pcWord, bNumeric)) {
            ulNum++;
            pstHit = pstNode;
        }
    });
    if (ulNum == 0)
        return {CliMatch::kNone, nullptr, false};
    if (ulNum > 1)
        return {CliMatch::kAmbiguous, nullptr, false};
    const bool bParam =
        pstHit->enParamType == CMD_PARAM_STRING || (pstHit->enParamType == CMD_PARAM_INTEGER && bNumeric);
    // A unique abbreviation is not a command word; completing it is TAB's job.
    if (!bParam && strcmp(pstHit->szTitle, pcWord) != 0)
        return {CliMatch::kNone, nullptr, false};
    return {CliMatch::kFound, pstHit, bParam};
}

// Appends within the capacity of the destination; what does not fit is cut.
void CLI_Append(char *pcDst, size_t ulCap, const char *pcSrc)
{
    const size_t ulUsed = strlen(pcDst);
    if (ulUsed + 1 < ulCap)
        ISP_strncat(pcDst, pcSrc, ulCap - 1 - ulUsed);
}

// The parameter word and ";" behind the others, or false when they would not
// fit: a cut parameter would run a command the user never typed.
bool CLI_AddParam(const char *pcWord)
{
    if (strlen(gszExtendParam) + strlen(pcWord) + 1 >= sizeof(gszExtendParam))
        return false;
    ISP_strcat(gszExtendParam, pcWord);
    ISP_strcat(gszExtendParam, ";");
    return true;
}

void CLI_CompleteInPlace(u32 ulStart, const char *pcTitle)
{
    const size_t ulTitle = strlen(pcTitle);
    // The completed word and its blank must still fit the line.
    if (ulStart + ulTitle + 1 > CLI_LINE_MAX) {
        CLI_LineFull();
        return;
    }
    memcpy(gszLineBuf + ulStart, pcTitle, ulTitle);
    gszLineBuf[ulStart + ulTitle] = ' ';
    gszLineBuf[ulStart + ulTitle + 1] = '\0';
}

enum class CliTab : u8 { kDone, kRun };

// A help row: the title padded to 16 columns, then the help.
void CLI_PrintHelpRow(const char *pcTitle, const char *pcHelp)
{
    std::string sRow = CLI_ServiceText(pcTitle);
    sRow.resize(std::max<size_t>(sRow.size(), 16), ' ');
    CLI_Write((sRow + " " + CLI_ServiceText(pcHelp) + "\n").c_str());
}

// TAB at the end of word ulIdx: complete a single title in place, or list
// the candidates; behind a complete line TAB runs it as Enter would. With
// bListOnly ("?" of the tool's ways) it always lists, and runs nothing.
CliTab CLI_Complete(CLI_NODE_S *pstCur, const CLI_WORDS_S *pstWords, u32 ulIdx, bool bListOnly)
{
    const char *pcWord = pstWords->acCmdArgv[ulIdx];
    const size_t ulPrefix = strlen(pcWord) - 1;
    if (pstCur != nullptr && ISP_CLI_IsCompleteCmdLine(pstCur) == 1) {
        if (!bListOnly)
            return ulPrefix == 0 ? CliTab::kRun : CliTab::kDone;
        CLI_Puts("\r");
        CLI_PrintHelpRow("<Enter>", "runs the line");
        CLI_Puts("\r");
        return CliTab::kDone;
    }
    // Parameter nodes count by their titles here: no typed value is taken.
    auto Fits = [&](const CLI_NODE_S *pstNode) {
        return CLI_IsCandidate(pstNode) && ISP_strncmp(pstNode->szTitle, pcWord, ulPrefix) == 0;
    };
    u32 ulNum = 0;
    CLI_NODE_S *pstHit = nullptr;
    CLI_ForEachOnRing(pstCur, [&](CLI_NODE_S *pstNode) {
        if (Fits(pstNode)) {
            ulNum++;
            pstHit = pstNode;
        }
    });
    if (ulNum == 0)
        return CliTab::kDone;
    // A title that would not be written as it stands is listed, not put
    // into the line, whose echo is not made visible.
    if (ulNum == 1 && pstHit->enParamType == CMD_PARAM_TITLE && !bListOnly &&
        CLI_ServiceText(pstHit->szTitle) == pstHit->szTitle) {
        CLI_CompleteInPlace(pstWords->aulStart[ulIdx], pstHit->szTitle);
        return CliTab::kDone;
    }
    CLI_Puts("\r");
    CLI_ForEachOnRing(pstCur, [&](CLI_NODE_S *pstNode) {
        if (Fits(pstNode))
            CLI_PrintHelpRow(pstNode->szTitle, pstNode->szHelp);
    });
    CLI_Puts("\r");
    return CliTab::kDone;
}

CLI_RESULT_E CLI_SetOwnLevel()
{
    char acParams[CLI_EXT_PARAM_LEN];
    memcpy(acParams, gszExtendParam, sizeof(acParams));
    char *pcSave = nullptr;
    (void)ISP_strtok_r(acParams, ";", &pcSave);
    const char *pcLevel = ISP_strtok_r(nullptr, ";", &pcSave);
    // "isp bp log cli level" takes "level" as the title and leaves no value.
    const bool bDone = pcLevel != nullptr && IBP_LOG_SetLevelByName("CLI", static_cast<u32>(ISP_atol(pcLevel))) == 0;
    CLI_Puts(bDone ? "\r\noperate success" : "\r\noperate fail");
    return bDone ? CLI_RESULT_DONE : CLI_RESULT_OPERATE_FAIL;
}

CLI_RESULT_E CLI_RunCommand(char *pcFullCmd, size_t ulCap)
{
    CLI_Append(pcFullCmd, ulCap, ">");
    if (gszExtendParam[0] != '\0') {
        CLI_Append(pcFullCmd, ulCap, gszExtendParam);
        if (ISP_strncmp(pcFullCmd, kOwnLevelCmd, sizeof(kOwnLevelCmd) - 1) == 0)
            return CLI_SetOwnLevel();
    }
    return CLI_Request(CMD_MSG_EXEC_CMD, pcFullCmd);
}

// Turns the "?" that ends the line and its last word into TAB; false when
// the words stopped short of the line's end (more than 20 of them).
bool CLI_ListOnLastWord(CLI_WORDS_S *pstWords)
{
    const u32 ulLast = pstWords->ulCmdArgc - 1;
    char *pcWord = pstWords->acCmdArgv[ulLast];
    const size_t ulWordLen = strlen(pcWord);
    if (pstWords->aulStart[ulLast] + ulWordLen != strlen(gszLineBuf))
        return false;
    pcWord[ulWordLen - 1] = '\t';
    return true;
}

CLI_RESULT_E CLI_Walk(const CLI_WORDS_S *pstWords, bool bListOnly)
{
    char szFullCmd[CMD_FULL_CMD_LEN] = "<";
    memset(gszExtendParam, 0, sizeof(gszExtendParam));
    CLI_NODE_S *pstCur = gpCmdTreeNode;
    for (u32 i = 0; i < pstWords->ulCmdArgc; i++) {
        const char *pcWord = pstWords->acCmdArgv[i];
        if (pcWord[strlen(pcWord) - 1] == '\t') {
            if (CLI_Complete(pstCur, pstWords, i, bListOnly) == CliTab::kDone)
                return CLI_RESULT_DONE;
            break;
        }
        const CLI_MATCH_S stMatch = CLI_MatchWord(pstCur, pcWord);
        if (stMatch.enStatus == CliMatch::kAmbiguous)
            return CLI_PrintReport(CliReport::kAmbiguous, i);
        if (stMatch.enStatus == CliMatch::kNone)
            return CLI_PrintReport(CliReport::kWrong, i);
        CLI_Append(szFullCmd, sizeof(szFullCmd), stMatch.pstNode->szTitle);
        CLI_Append(szFullCmd, sizeof(szFullCmd), " ");
        if (stMatch.bParam && !CLI_AddParam(pcWord)) {
            CLI_ERR("out of max param buff");
            return CLI_PrintReport(CliReport::kWrong, i);
        }
        pstCur = CLI_FirstChild(stMatch.pstNode);
    }
    if (pstCur == nullptr || ISP_CLI_IsCompleteCmdLine(pstCur) != 1)
        return CLI_PrintReport(CliReport::kIncomplete, 0);
    return CLI_RunCommand(szFullCmd, sizeof(szFullCmd));
}

}  // namespace

bool CLI_IsKeptLine()
{
    const size_t ulLen = strlen(gszLineBuf);
    return ulLen != 0 && CLI_IsKeepByte(gszLineBuf[ulLen - 1]);
}

void CLI_FinishLine(bool bKeepLine)
{
    // A kept line stays on the prompt without its TAB or "?"; a completion
    // may have changed it and then ends in a blank.
    const size_t ulLen = strlen(gszLineBuf);
    if (!bKeepLine)
        gszLineBuf[0] = '\0';
    else if (ulLen != 0 && CLI_IsKeepByte(gszLineBuf[ulLen - 1]))
        gszLineBuf[ulLen - 1] = '\0';
}

CLI_RESULT_E CLI_ProcessLine()
{
    const bool bKeepLine = CLI_IsKeptLine();
    CLI_WORDS_S stWords{};
    CLI_SplitWords(gszLineBuf, &stWords);
    // With the tool's ways a "?" that ends the line lists what may stand
    // there, as TAB does, instead of being taken as a word.
    const bool bListOnly = gstCliTool.bOn && bKeepLine && gszLineBuf[strlen(gszLineBuf) - 1] == '?' &&
                           stWords.ulCmdArgc != 0 && CLI_ListOnLastWord(&stWords);
    CLI_RESULT_E enResult = CLI_RESULT_DONE;
    if (stWords.ulCmdArgc == 0) {
        CLI_Printf("\n%s", gszSysPrompt);
        CLI_ERR("ulCmdArgc = 0");
    } else {
        enResult = CLI_Walk(&stWords, bListOnly);
    }
    CLI_FinishLine(bKeepLine);
    return enResult;
}

void ISP_CLI_MainProcess() { (void)CLI_ProcessLine(); }

void ISP_CLI_PrintWrongCmd(u32 ulWordIdx) { (void)CLI_PrintReport(CliReport::kWrong, ulWordIdx); }

