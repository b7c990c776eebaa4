// XML documents on Mini-XML: opening (also out of zip archives), path lookup, typed readers, batch and matrix reads.
#include "ibp/isp_xml.h"

#include <mxml.h>

#include <bit>
#include <initializer_list>

#include "ibp/isp_system.h"
#include "log/log_internal.h"

IBP_LOG_SOURCE("isp_xml");

// Logs under the name of the exported function that a shared helper serves.
#define XML_ERR_AS(func, fmt, ...) \
    LOG_Pirnt(LOG_MODULE_BP, LOG_LEVEL_ERR, kLogSrcFile, (func), __LINE__, fmt __VA_OPT__(, ) __VA_ARGS__)

namespace {

// Command and temporary path share one buffer of this size.
constexpr size_t kCmdLen = 128;
// The readers keep a converted value in 32 bits.
constexpr u32 kMaxElemSize = sizeof(u32);

// Every node's character data is loaded as words, one text node per word.
mxml_type_t LoadTypeCb(mxml_node_t *)
{
    return MXML_TEXT;
}

// Keeps every node, which builds the same tree as a plain load, and counts
// element opens against closes: Mini-XML accepts an outermost element that
// is never closed (a truncated file, or one cut short at a bad character),
// and the count tells such a file from a whole one.
void LoadSaxCb(mxml_node_t *pstNode, mxml_sax_event_t enEvent, void *pData)
{
    s32 *plOpen = static_cast<s32 *>(pData);
    if (enEvent == MXML_SAX_ELEMENT_CLOSE) {
        --*plOpen;
        return;
    }
    if (enEvent == MXML_SAX_ELEMENT_OPEN) {
        ++*plOpen;
    }
    mxmlRetain(pstNode);
}

// The exported function that is loading a file on this thread, for the
// records of Mini-XML's own complaints.
thread_local const char *tpcLoadingFunc = "XML_Init";

// Mini-XML reports what it finds wrong in a file ("XML does not start with
// '<'", an unterminated character entity, ...) through this callback instead
// of on standard error: one record each, ahead of the record of the failed load.
void MxmlErrorCb(const char *pcMessage)
{
    XML_ERR_AS(tpcLoadingFunc, "Mini-XML: %s", pcMessage);
}

const char *NodeName(mxml_node_t *pstNode)
{
    const char *pcName = mxmlGetElement(pstNode);
    return pcName != nullptr ? pcName : "(none)";
}

// ---------------------------------------------------------------- names that reach the shell

constexpr bool IsShellSafeChar(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
           c == '.' || c == '_' || c == '/' || c == '+' || c == '-';
}

bool HasParentComponent(const char *pcName)
{
    for (const char *pcPart = pcName; *pcPart != '\0';) {
        const char *pcEnd = pcPart;
        while (*pcEnd != '\0' && *pcEnd != '/') {
            ++pcEnd;
        }
        if (pcEnd - pcPart == 2 && pcPart[0] == '.' && pcPart[1] == '.') {
            return true;
        }
        pcPart = (*pcEnd == '/') ? pcEnd + 1 : pcEnd;
    }
    return false;
}

// Names go to "sh -c" unquoted, so only a plain set of characters may pass;
// a leading '-' would be an option of unzip. A member is also a path under
// /tmp that is read and then unlinked, so it may not climb out of /tmp nor
// name a directory. Returns why a name is refused, or null.
const char *RefuseShellName(const char *pcName, bool bMember)
{
    if (pcName[0] == '\0') {
        return "empty";
    }
    if (pcName[0] == '-') {
        return "starts with -";
    }
    for (const char *pc = pcName; *pc != '\0'; ++pc) {
        if (!IsShellSafeChar(*pc)) {
            return "holds a character other than letters, digits and ._/+-";
        }
    }
    if (bMember && HasParentComponent(pcName)) {
        return "leaves /tmp";
    }
    if (bMember && pcName[ISP_strlen(pcName) - 1] == '/') {
        return "names a directory";
    }
    return nullptr;
}

// ---------------------------------------------------------------- opening

// Closes the stream and removes the temporary file of a zip read when the
// load is over, on every path.
class LoadScope {
public:
    LoadScope() = default;
    LoadScope(const LoadScope &) = delete;
    LoadScope &operator=(const LoadScope &) = delete;
    ~LoadScope()
    {
        if (pstFile_ != nullptr) {
            ISP_fclose(pstFile_);
        }
        if (pcTempPath_ != nullptr) {
            ISP_unlink(pcTempPath_);
        }
    }
    void SetFile(FILE *pstFile) { pstFile_ = pstFile; }
    void SetTempPath(const char *pcPath) { pcTempPath_ = pcPath; }

private:
    FILE *pstFile_ = nullptr;
    const char *pcTempPath_ = nullptr;
};

// Extracts the member into /tmp and leaves its path in acPath. False when a
// name is refused; a failed extraction shows up when the path is opened.
bool ExtractMember(const char *pcFunc, const char *pcXmlFile, const char *pcZipFile,
                   char (&acPath)[kCmdLen])
{
    struct ShellName {
        const char *pcName;
        bool bMember;
    };
    for (const ShellName &stName : {ShellName{pcZipFile, false}, ShellName{pcXmlFile, true}}) {
        if (const char *pcWhy = RefuseShellName(stName.pcName, stName.bMember)) {
            XML_ERR_AS(pcFunc, "refuse file name %s: %s", stName.pcName, pcWhy);
            return false;
        }
    }
    // A cut command would extract elsewhere or send the output to a stray
    // file, so a command that does not fit is refused rather than cut.
    ISP_memzero(acPath, sizeof(acPath));
    int lLen = ISP_snprintf(acPath, sizeof(acPath), "unzip -o %s %s -d /tmp/ > /dev/null", pcZipFile,
                            pcXmlFile);
    if (lLen < 0 || static_cast<size_t>(lLen) >= sizeof(acPath)) {
        XML_ERR_AS(pcFunc, "unzip command for %s in %s too long", pcXmlFile, pcZipFile);
        return false;
    }
    (void)ISP_system(acPath);
    // Shorter than the command, so it always fits.
    ISP_snprintf(acPath, sizeof(acPath), "/tmp/%s", pcXmlFile);
    return true;
}

// Loads the tree into pstDoc. Stream and temporary file are gone on return.
bool LoadDocument(const char *pcFunc, XML_DOC_S *pstDoc, const char *pcXmlFile, const char *pcZipFile)
{
    char acPath[kCmdLen];
    const char *pcOpenPath = pcXmlFile;
    LoadScope stScope;
    if (pcZipFile != nullptr) {
        if (!ExtractMember(pcFunc, pcXmlFile, pcZipFile, acPath)) {
            return false;
        }
        pcOpenPath = acPath;
        stScope.SetTempPath(acPath);
    }
    FILE *pstFile = ISP_fopen(pcOpenPath, "r");
    if (pstFile == nullptr) {
        XML_ERR_AS(pcFunc, "fopen file %s fail", pcOpenPath);
        return false;
    }
    stScope.SetFile(pstFile);
    // The record is zeroed, so the last byte stays the terminator.
    ISP_strncpy(pstDoc->acFileName, pcOpenPath, sizeof(pstDoc->acFileName) - 1);

    s32 lOpen = 0;
    // Mini-XML keeps its error callback per thread: set it on the one that loads.
    tpcLoadingFunc = pcFunc;
    mxmlSetErrorCallback(MxmlErrorCb);
    pstDoc->pstRoot = mxmlSAXLoadFile(nullptr, pstFile, LoadTypeCb, LoadSaxCb, &lOpen);
    if (pstDoc->pstRoot != nullptr && lOpen != 0) {
        mxmlDelete(pstDoc->pstRoot);
        pstDoc->pstRoot = nullptr;
    }
    if (pstDoc->pstRoot == nullptr) {
        XML_ERR_AS(pcFunc, "mxmlLoadFile fail");
        return false;
    }
    return true;
}

// The common part of both open calls, after the record was allocated.
XML_HANDLE OpenDocument(const char *pcFunc, XML_DOC_S *pstDoc, const char *pcXmlFile,
                        const char *pcZipFile)
{
    ISP_memzero(pstDoc, sizeof(*pstDoc));
    if (!LoadDocument(pcFunc, pstDoc, pcXmlFile, pcZipFile)) {
        XML_ERR_AS(pcFunc, "xml init %s fail!", pcXmlFile);
        ISP_free(&pstDoc);
        return nullptr;
    }
    return pstDoc;
}

// ---------------------------------------------------------------- conversions

// Converts like strtoll with base 0 (0x hex, 0 octal, sign, leading blanks);
// trailing characters are accepted. False when no digit was taken. The low
// 32 bits are kept.
bool ParseInt(const char *pcText, u32 *pulValue, char **ppcEnd)
{
    long long llValue = ISP_strtoll(pcText, ppcEnd, 0);
    if (*ppcEnd == pcText) {
        return false;
    }
    *pulValue = static_cast<u32>(llValue);
    return true;
}

// Stores the low-order ulElemSize bytes of ulValue at pDst.
void StoreLow(void *pDst, u32 ulValue, u32 ulElemSize)
{
    const u8 *pucSrc = reinterpret_cast<const u8 *>(&ulValue);
    if constexpr (std::endian::native == std::endian::big) {
        pucSrc += sizeof(ulValue) - ulElemSize;
    }
    ISP_memcpy(pDst, pucSrc, ulElemSize);
}

// Wider elements would need more than the 32 bits a value is held in; they
// are refused rather than filled with undefined bytes.
bool ElemSizeOk(u32 ulElemSize, const char *pcFunc)
{
    if (ulElemSize > kMaxElemSize) {
        XML_ERR_AS(pcFunc, "element size %u > %u not supported", ulElemSize, kMaxElemSize);
        return false;
    }
    return true;
}

// ---------------------------------------------------------------- element walk

// Mini-XML keeps comments, CDATA, declarations and directives as element
// nodes whose names start with '!' or '?'; they are markup, not children.
bool IsElementChild(mxml_node_t *pstNode)
{
    if (mxmlGetType(pstNode) != MXML_ELEMENT) {
        return false;
    }
    const char *pcName = mxmlGetElement(pstNode);
    return pcName != nullptr && pcName[0] != '!' && pcName[0] != '?';
}

mxml_node_t *SkipToElement(mxml_node_t *pstNode)
{
    while (pstNode != nullptr && !IsElementChild(pstNode)) {
        pstNode = mxmlGetNextSibling(pstNode);
    }
    return pstNode;
}

mxml_node_t *FirstElementChild(mxml_node_t *pstParent)
{
    return SkipToElement(mxmlGetFirstChild(pstParent));
}

mxml_node_t *NextElementChild(mxml_node_t *pstNode)
{
    return SkipToElement(mxmlGetNextSibling(pstNode));
}

// Reads one element child through the first table row of its name that has
// a getter. False stops the batch.
bool BatchGetMatch(mxml_node_t *pstChild, const XML_GET_TABLE_S *pstGetTable, u32 ulTableNum,
                   void *pValue)
{
    const char *pcName = NodeName(pstChild);
    const XML_GET_TABLE_S *pstRow = nullptr;
    for (u32 i = 0; i < ulTableNum; ++i) {
        const XML_GET_TABLE_S &stRow = pstGetTable[i];
        if (stRow.pfnGet != nullptr && stRow.pcName != nullptr && ISP_strcmp(stRow.pcName, pcName) == 0) {
            pstRow = &stRow;
            break;
        }
    }
    if (pstRow == nullptr) {
        IBP_ERR("Get node %s content fail", pcName);
        return false;
    }
    if (pstRow->lElemSize == 0) {
        IBP_ERR("Element size is zero");
        return false;
    }
    // Divided in 64 bits: INT32_MIN / -1 does not fit 32 bits. The getter
    // takes the quotient as an unsigned capacity; what it stores is dropped.
    u32 ulElemNum = static_cast<u32>(static_cast<s64>(pstRow->lSize) / pstRow->lElemSize);
    if (pstRow->pfnGet(pstChild, static_cast<u32>(pstRow->lElemSize), &ulElemNum,
                       static_cast<u8 *>(pValue) + pstRow->ulOffset) != 0) {
        IBP_ERR("Get value from node %s fail", pcName);
        return false;
    }
    return true;
}

}  // namespace

extern "C" {

IBP_API XML_HANDLE XML_Init(const char *pcXmlFile, const char *pcZipFile)
{
    if (pcXmlFile == nullptr) {
        IBP_ERR("pcXmlFile is NULL");
        return nullptr;
    }
    auto *pstDoc = static_cast<XML_DOC_S *>(ISP_malloc(0, sizeof(XML_DOC_S)));
    if (pstDoc == nullptr) {
        IBP_ERR("malloc %zd fail", sizeof(XML_DOC_S));
        IBP_ERR("xml init %s fail!", pcXmlFile);
        return nullptr;
    }
    return OpenDocument(__func__, pstDoc, pcXmlFile, pcZipFile);
}

IBP_API XML_HANDLE XML_InitLensFile(const char *pcXmlFile)
{
    if (pcXmlFile == nullptr) {
        IBP_ERR("pcXmlFile is NULL");
        return nullptr;
    }
    auto *pstDoc = static_cast<XML_DOC_S *>(ISP_malloc(0, sizeof(XML_DOC_S)));
    if (pstDoc == nullptr) {
        IBP_ERR("malloc %zu fail", sizeof(XML_DOC_S));
        IBP_ERR("xml init %s fail!", pcXmlFile);
        return nullptr;
    }
    return OpenDocument(__func__, pstDoc, pcXmlFile, nullptr);
}

IBP_API void XML_Destroy(XML_HANDLE hHandle)
{
    if (hHandle == nullptr) {
        IBP_ERR("hHandle is invalid");
        return;
    }
    if (hHandle->pstRoot == nullptr) {
        IBP_ERR("xml node is invalid");
        return;
    }
    mxmlDelete(hHandle->pstRoot);
    XML_DOC_S *pstDoc = hHandle;
    ISP_free(&pstDoc);
}

IBP_API XML_NODE XML_GetNodeset(XML_HANDLE hHandle, const char *pcNodePath)
{
    if (hHandle == nullptr) {
        IBP_ERR("hHandle is invalid");
        return nullptr;
    }
    if (pcNodePath == nullptr) {
        IBP_ERR("pcNodePath is NULL");
        return nullptr;
    }
    if (hHandle->pstRoot == nullptr) {
        IBP_ERR("xml node is invalid");
        return nullptr;
    }
    // A path that does not exist is an ordinary answer: no log record.
    mxml_node_t *pstNode = mxmlFindPath(hHandle->pstRoot, pcNodePath);
    if (pstNode == nullptr) {
        return nullptr;
    }
    // Mini-XML answers with the value node below a leaf; give its element.
    return mxmlGetType(pstNode) == MXML_ELEMENT ? pstNode : mxmlGetParent(pstNode);
}

IBP_API u32 XML_GetInt(XML_NODE hNode, u32 ulElemSize, u32 *pulElemNum, void *pValue)
{
    if (hNode == nullptr) {
        IBP_ERR("hNode is invalid");
        return 1;
    }
    if (pulElemNum == nullptr) {
        IBP_ERR("pulElemNum is NULL");
        return 1;
    }
    if (pValue == nullptr) {
        IBP_ERR("pValue is NULL");
        return 1;
    }
    if (!ElemSizeOk(ulElemSize, __func__)) {
        return 1;
    }
    const char *pcContent = mxmlGetText(hNode, nullptr);
    if (pcContent == nullptr) {
        IBP_ERR("node %s content is NULL", NodeName(hNode));
        return 1;
    }
    u32 ulValue = 0;
    char *pcEnd = nullptr;
    if (!ParseInt(pcContent, &ulValue, &pcEnd)) {
        IBP_ERR("strtoll fail! pcContent=%s pcEndString=%s", NodeName(hNode), pcEnd);
        return 1;
    }
    StoreLow(pValue, ulValue, ulElemSize);
    *pulElemNum = 1;
    return 0;
}

IBP_API u32 XML_GetIntArray(XML_NODE hNode, u32 ulElemSize, u32 *pulElemNum, void *pValue)
{
    if (hNode == nullptr) {
        IBP_ERR("hNode is invalid");
        return 1;
    }
    if (pulElemNum == nullptr) {
        IBP_ERR("pulElemNum is NULL");
        return 1;
    }
    if (pValue != nullptr && !ElemSizeOk(ulElemSize, __func__)) {
        return 1;
    }
    const u32 ulCapacity = *pulElemNum;
    const char *pcContent = mxmlGetText(hNode, nullptr);
    if (pcContent == nullptr) {
        IBP_ERR("mxmlGetText %s fail", NodeName(hNode));
        return 1;
    }
    // The fields are cut out of the node's own text: each comma becomes a
    // terminator, so the node reads as its first field afterwards.
    char *pcSave = nullptr;
    u8 *pucDst = static_cast<u8 *>(pValue);
    u32 ulIndex = 0;
    for (char *pcField = ISP_strtok_r(const_cast<char *>(pcContent), ",", &pcSave); pcField != nullptr;
         pcField = ISP_strtok_r(nullptr, ",", &pcSave), ++ulIndex) {
        if (pucDst == nullptr) {
            continue;
        }
        if (ulIndex >= ulCapacity) {
            IBP_ERR("node %s element number > max %u", NodeName(hNode), ulCapacity);
            return 1;
        }
        u32 ulValue = 0;
        char *pcEnd = nullptr;
        if (!ParseInt(pcField, &ulValue, &pcEnd)) {
            IBP_ERR("stroll fail! node=%s content=%s", NodeName(hNode), pcField);
            return 1;
        }
        StoreLow(pucDst, ulValue, ulElemSize);
        pucDst += ulElemSize;
    }
    *pulElemNum = ulIndex;
    return 0;
}

IBP_API u32 XML_GetString(XML_NODE hNode, u32 ulElemSize, u32 *pulSize, void *pValue)
{
    (void)ulElemSize;
    if (hNode == nullptr) {
        IBP_ERR("hNode is invalid");
        return 1;
    }
    if (pulSize == nullptr) {
        IBP_ERR("pulSize is NULL");
        return 1;
    }
    if (pValue == nullptr) {
        IBP_ERR("pValue is NULL");
        return 1;
    }
    const u32 ulCapacity = *pulSize;
    const char *pcContent = mxmlGetText(hNode, nullptr);
    if (pcContent == nullptr) {
        IBP_ERR("mxmlGetText %s fail", NodeName(hNode));
        return 1;
    }
    size_t ulLen = ISP_strlen(pcContent);
    if (ulLen > ulCapacity) {
        IBP_WRN("output buffer not enough! %u > %u ", static_cast<u32>(ulLen), ulCapacity);
        return 1;
    }
    // Zero-fills the rest; a text as long as the capacity gets no terminator.
    ISP_strncpy(static_cast<char *>(pValue), pcContent, ulCapacity);
    *pulSize = static_cast<u32>(ulLen);
    return 0;
}

IBP_API u32 XML_BatchGet(XML_HANDLE hHandle, const char *pcNodePath, const XML_GET_TABLE_S *pstGetTable,
                         u32 ulTableNum, void *pValue)
{
    if (hHandle == nullptr) {
        IBP_ERR("hHandle is invalid");
        return 1;
    }
    if (pcNodePath == nullptr) {
        IBP_ERR("pcNodePath is NULL");
        return 1;
    }
    if (pstGetTable == nullptr) {
        IBP_ERR("pstGetTable is NULL");
        return 1;
    }
    if (pValue == nullptr) {
        IBP_ERR("pValue is NULL");
        return 1;
    }
    mxml_node_t *pstParent = XML_GetNodeset(hHandle, pcNodePath);
    if (pstParent == nullptr) {
        IBP_ERR("Get node set of %s fail", pcNodePath);
        return 1;
    }
    // The file's order decides; a stop leaves the later fields as they were
    // and is told by the log only.
    for (mxml_node_t *pstChild = FirstElementChild(pstParent); pstChild != nullptr;
         pstChild = NextElementChild(pstChild)) {
        if (!BatchGetMatch(pstChild, pstGetTable, ulTableNum, pValue)) {
            IBP_ERR("BatchGetMatch fail! pcNodePath=%s", pcNodePath);
            return 0;
        }
    }
    return 0;
}

IBP_API u32 XML_GetIntArray2D(XML_HANDLE hHandle, const char *pcNodePath, u32 ulElemSize, u32 *pulElemNum,
                              void *pValue)
{
    if (hHandle == nullptr) {
        IBP_ERR("hHandle is invalid");
        return 1;
    }
    if (pcNodePath == nullptr) {
        IBP_ERR("pcNodePath is NULL");
        return 1;
    }
    if (pulElemNum == nullptr) {
        IBP_ERR("pulElemNum is NULL");
        return 1;
    }
    if (pValue == nullptr) {
        IBP_ERR("pValue is NULL");
        return 1;
    }
    mxml_node_t *pstParent = XML_GetNodeset(hHandle, pcNodePath);
    if (pstParent == nullptr) {
        IBP_ERR("XML_GetNodeset %s fail", pcNodePath);
        return 1;
    }
    const u32 ulCols = pulElemNum[0];
    const u32 ulMaxRows = pulElemNum[1];
    const size_t ulRowBytes = static_cast<size_t>(ulElemSize) * ulCols;
    u32 ulRow = 0;
    // Any element child is a row, in the file's order; a bad row ends the
    // matrix uncounted, though part of it may have been stored.
    for (mxml_node_t *pstChild = FirstElementChild(pstParent); pstChild != nullptr;
         pstChild = NextElementChild(pstChild), ++ulRow) {
        if (ulRow >= ulMaxRows) {
            IBP_WRN("real row num %u >= %u", ulRow, ulMaxRows);
            break;
        }
        u32 ulCount = ulCols;
        if (XML_GetIntArray(pstChild, ulElemSize, &ulCount, static_cast<u8 *>(pValue) + ulRowBytes * ulRow) !=
            0) {
            IBP_ERR("XML_GetIntArray %s fail", NodeName(pstChild));
            break;
        }
        if (ulCount != ulCols) {
            IBP_ERR("Array element num %u not equal to %u", ulCount, ulCols);
            break;
        }
    }
    pulElemNum[1] = ulRow;
    return 0;
}

}  // extern "C"
